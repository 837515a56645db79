// The registry below the library's typed view: keys, changes, named locks, and the inspection of a
// registry. For programs that administer the tree; those that only read it need keyview/prsr.h alone.
// Usable from C99 and C++17.
//
// Every function that returns a code returns 0 for success, else one of KEYVIEW_FAILURE_*
// (keyview_host.h); keyview_host_last_error then has the cause. Nothing is half-done after a failure.
//
// A keyview_bytes that is passed in stays the caller's; one that a callback receives is valid during
// the call only. A path is a key's elements joined by "."; a value is stored as given, so a text
// carries its zero byte. Callbacks run on the calling thread, must not throw and must not call
// functions of this header for the same registry. No pointer may be null unless its function says so.
//
// A keyview_registry may be used by several threads at once.
#ifndef KEYVIEW_REGISTRY_H
#define KEYVIEW_REGISTRY_H

#include <stddef.h>
#include <stdint.h>

#include "keyview_host.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct keyview_registry keyview_registry;
typedef struct keyview_lock keyview_lock;

typedef struct keyview_bytes {
    const char *data;  // may be null if size is 0
    size_t size;       // bytes, without a zero byte behind them
} keyview_bytes;

// Opens the registry of a URL; null means the one in force for the process. A registry that does
// not exist is created if create is not 0, else it is KEYVIEW_FAILURE_NOT_FOUND. The handle is the
// caller's and ends with keyview_registry_close, which accepts null.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_open(const char *url, int32_t create,
                                                    keyview_registry **registry);
KEYVIEW_HOST_FUNCTION void keyview_registry_close(keyview_registry *registry);

// How often this process waited for an answer of another machine so far; 0 for an embedded registry.
KEYVIEW_HOST_FUNCTION uint64_t keyview_registry_round_trips(const keyview_registry *registry);

// ---- Reading ------------------------------------------------------------------------------------

enum { KEYVIEW_DEPTH_KEY = 0, KEYVIEW_DEPTH_CHILDREN = 1, KEYVIEW_DEPTH_ALL = 2 };

typedef struct keyview_part {
    keyview_bytes path;
    int32_t depth;  // KEYVIEW_DEPTH_*
} keyview_part;

// value is null for a row that is damaged.
typedef void (*keyview_row_callback)(void *arg, keyview_bytes path, const keyview_bytes *value);

// Reads parts of the tree as of one moment, in their order, a parent before its children. A part
// that does not exist delivers nothing. revision, which may be null, receives the tree's revision:
// it moves when the tree changes, not when a lock is taken. Takes no lock.
//
// With salvage, rows come in no order and a damaged one is delivered without its value; without, it
// is KEYVIEW_FAILURE_CONTENT.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_read(keyview_registry *registry,
                                                    const keyview_part *parts, size_t count,
                                                    int32_t salvage, keyview_row_callback row,
                                                    void *arg, uint64_t *revision);

// before and after are null where the key did not exist.
typedef void (*keyview_change_callback)(void *arg, uint64_t revision, keyview_bytes path,
                                        const keyview_bytes *before, const keyview_bytes *after);

// Delivers the changes of a key and of what is below it after the revision *since, and moves *since
// to the revision to continue from. Waits up to wait_ms for the first one. *keeps_history receives 0
// if the registry cannot deliver them so, as one on a single machine: then there never is a change.
//
// KEYVIEW_FAILURE_CHANGED if the registry no longer holds the changes after that revision.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_follow(keyview_registry *registry,
                                                      keyview_bytes path, uint64_t *since,
                                                      uint32_t wait_ms,
                                                      keyview_change_callback change, void *arg,
                                                      int32_t *keeps_history);

typedef struct keyview_history_entry {
    uint64_t revision;                  // that the tree had with the change
    int64_t time_us;                    // since 1970
    keyview_bytes user, program, host;  // who made it
    uint64_t process;
    uint64_t left_out;  // further keys that changed, whose values are not kept
} keyview_history_entry;

// A result of 0 ends the delivery.
typedef int32_t (*keyview_history_callback)(void *arg, const keyview_history_entry *entry);

// Delivers who changed what after a revision, the latest change first: each change, then its keys. A
// registry keeps its latest changes, as far as KEYVIEW_HISTORY says (keyview_host.h).
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_history(keyview_registry *registry, uint64_t since,
                                                       keyview_history_callback entry,
                                                       keyview_change_callback change, void *arg);

// Delivers each value that an operation of the library sets on this thread, once it is stored, with
// the value that it replaced; revision is 0. A null callback ends it.
KEYVIEW_HOST_FUNCTION void keyview_registry_observe_sets(keyview_change_callback set, void *arg);

// Delivers the text of each KEYVIEW_FAILURE_CONTENT of an outside operation or of a function of this
// header on this thread: the library reads a list that is damaged as an empty one. A null callback
// ends it.
typedef void (*keyview_failure_callback)(void *arg, keyview_bytes text);
KEYVIEW_HOST_FUNCTION void keyview_registry_observe_damage(keyview_failure_callback damage,
                                                           void *arg);

// ---- Changing -----------------------------------------------------------------------------------

typedef struct keyview_change {
    keyview_bytes path;
    keyview_bytes value;  // ignored by a removal
    int32_t remove;       // not 0: the key goes with all that is below it
} keyview_change;

// Carries out all changes in their order, or none of them. A put creates the key and its missing
// parents, or replaces its value. Every one of the locks must still be held, else
// KEYVIEW_FAILURE_LOCK; with a revision other than 0 the tree must be at it, else
// KEYVIEW_FAILURE_CHANGED.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_apply(keyview_registry *registry,
                                                     const keyview_change *changes, size_t count,
                                                     keyview_lock *const *locks, size_t lock_count,
                                                     uint64_t revision);

// The same for changes that are not stored as an array: the source fills in each one by its number,
// from 0 up to count, perhaps more than once. What it points to must last until the end of the call.
typedef void (*keyview_change_source)(void *arg, size_t number, keyview_change *change);
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_apply_from(keyview_registry *registry,
                                                          keyview_change_source source, void *arg,
                                                          size_t count, keyview_lock *const *locks,
                                                          size_t lock_count, uint64_t revision);

// Completes (undo is 0) or takes back a change set that stopped half-way in a cluster.
// KEYVIEW_FAILURE_NOT_FOUND if there is none.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_recover(keyview_registry *registry, int32_t undo);

// ---- Locks --------------------------------------------------------------------------------------

// Takes the named lock for this process; its threads exclude each other, too. Waits up to wait_ms;
// a negative wait is the one in force (keyview_host.h). KEYVIEW_FAILURE_LOCK if it is not granted in
// time. The lock ends with keyview_lock_release, which accepts null, or with the process.
KEYVIEW_HOST_FUNCTION int32_t keyview_lock_acquire(keyview_registry *registry, keyview_bytes name,
                                                   int32_t shared, int64_t wait_ms,
                                                   keyview_lock **lock);
KEYVIEW_HOST_FUNCTION void keyview_lock_release(keyview_lock *lock);

// Takes several locks exclusively as one, or none of them, and waits for all together as for one.
// The registry is locked as a whole, in few steps however many names there are: use it where many are
// needed, or a wide change is ahead. The source returns each name by its number, from 0 up to count;
// what it points to must last until its next call. It is called only below a process that holds locks
// itself (KEYVIEW_LOCKS_ABOVE): then the locks are taken one by one.
typedef keyview_bytes (*keyview_name_source)(void *arg, size_t number);
KEYVIEW_HOST_FUNCTION int32_t keyview_lock_acquire_all(keyview_registry *registry,
                                                       keyview_name_source source, void *arg,
                                                       size_t count, int64_t wait_ms,
                                                       keyview_lock **lock);

// Whether the lock is held, as far as this process can tell without a call to the registry.
KEYVIEW_HOST_FUNCTION int32_t keyview_lock_held(const keyview_lock *lock);

// Delivers, while a call waits for a lock on this thread, the lock's name ("" for the one that orders
// writers) and its holder as far as it is known, as keyview_lock_list has it; holder is empty when it
// is no longer known, or the wait is over. A null callback ends it.
typedef void (*keyview_wait_callback)(void *arg, keyview_bytes name, keyview_bytes holder);
KEYVIEW_HOST_FUNCTION void keyview_lock_observe_waits(keyview_wait_callback wait, void *arg);

// holder is "keyviewctl, process 17 on db1, since 2026-11-26T12:00:03Z", without the time if only that
// is not known, and empty if the registry does not know it. A waiter's time is that of its request.
typedef void (*keyview_lock_callback)(void *arg, keyview_bytes name, int32_t shared, int32_t waits,
                                      keyview_bytes holder);

// Delivers who holds or waits for a lock. An embedded registry does not store the names of locks: it
// reports those of the given names.
KEYVIEW_HOST_FUNCTION int32_t keyview_lock_list(keyview_registry *registry,
                                                const keyview_bytes *names, size_t count,
                                                keyview_lock_callback use, void *arg);

// ---- Inspection ---------------------------------------------------------------------------------

// location is the path of a key, or an offset or page of the registry's file; reason is a sentence
// without its subject.
typedef void (*keyview_damage_callback)(void *arg, keyview_bytes location, keyview_bytes reason);

// Inspects all of the registry in force, also one that is too damaged to be opened, and delivers its
// sound rows, in no order. Writers wait meanwhile. keys and pages receive how many were inspected.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_check(keyview_damage_callback damage,
                                                     keyview_row_callback row, void *arg,
                                                     uint64_t *keys, uint64_t *pages);

enum { KEYVIEW_HEALTH_GOOD = 0, KEYVIEW_HEALTH_DOUBTFUL = 1, KEYVIEW_HEALTH_BAD = 2 };
typedef void (*keyview_diagnosis_callback)(void *arg, keyview_bytes subject, int32_t health,
                                           keyview_bytes text);

// Inspects how the registry in force is configured and reached, and takes a lock.
KEYVIEW_HOST_FUNCTION int32_t keyview_registry_diagnose(keyview_diagnosis_callback found,
                                                        void *arg);

#ifdef __cplusplus
}
#endif
#endif
