// The small interface over which the registry client and the administration are written once. Each
// backend implements it: the embedded one on LMDB, the one of the cluster on etcd.
//
// A path is a key's elements joined by ".". A failure is thrown as a host_error
// (host/support/error.h) whose text names the path and the cause. A store may be used by several
// threads at once.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/support/error.h"
#include "host/support/unique.h"
#include "model/path.h"

namespace keyview::host {

class held_lock;
class snapshot;

// One key of a change set. put creates the key, its missing parents (with empty values) included,
// or replaces its value; an unchanged value is not written again. remove deletes the key
// with all keys below it; a missing key is no failure. A put with a path that no key
// can have (path.h), or a value above MAX_VALUE_SIZE, is failure::usage. A key whose stored bytes
// are damaged is replaced and deleted like any other, and a damaged parent of it is left as it is.
struct change {
    enum class kind { put, remove };
    kind what;
    std::string path;
    std::string value;  // as stored: a text carries its zero byte
};

struct change_counts {
    uint64_t created = 0;   // missing parents included
    uint64_t replaced = 0;  // of those that changed
    uint64_t removed = 0;   // keys below included
};

// A change, for the moment in which it is carried out.
struct change_view {
    change::kind what;
    std::string_view path, value;
};

// A change set that is not stored: its changes by their numbers, in their order. A store may request
// each several times.
struct change_source {
    size_t size = 0;
    std::function<change_view(size_t number)> at;
};

// The conditions under which a change set is applied.
struct apply_terms {
    std::vector<const held_lock *> fences;  // locks that are held, else failure::lock
    uint64_t revision = 0;                  // of the whole tree, else failure::changed; 0 for any
};

// Identifies the state of a part of the tree. A number of 0 identifies none.
struct revision {
    uint64_t tree = 0;  // of the whole tree
    uint64_t part = 0;  // of the part alone

    bool same_as(const revision &other) const {
        return (tree != 0 && tree == other.tree) || (part != 0 && part == other.part);
    }
};

// Receives a key and its value. The views end with the call.
using row_sink = std::function<void(std::string_view path, std::string_view value)>;

// Receives the path of a key whose stored bytes are damaged. Where the path is damaged as well, it
// is what the store can read of it, and may be the path of no key.
using damaged_key_sink = std::function<void(std::string_view path)>;

// The tree as of one moment, for the thread that requested it. It may prevent the store from
// reusing storage: for short work only.
class moment : public abstract_base {
  public:
    // The revision of the requested part.
    virtual revision current() = 0;

    // Reads the value of one key; false if there is no such key.
    virtual bool read(std::string_view path, std::string *value) = 0;

    // Copies a key with its children or all that is below it into a snapshot that was made for this;
    // false, with what it held, if there is no such key.
    virtual bool copy(std::string_view path, reach which, snapshot *out) = 0;

    // Delivers the same keys in no order, and goes on after a key whose stored bytes are damaged,
    // which only this function does: the others throw failure::content. False if there is no such
    // key, sound or damaged. A store without damaged rows delivers a copy.
    virtual bool scan(std::string_view path, reach which, const row_sink &keys,
                      const damaged_key_sink &damaged);
};

// A change of one key, and the revision that the tree had with it. No value: no key.
struct tree_change {
    uint64_t revision = 0;
    std::string path;
    std::optional<std::string> before, after;
};

struct change_batch {
    std::vector<tree_change> changes;  // in their order
    uint64_t up_to = 0;                // the next changes are after this revision
};

// Every store refuses: a value or a change that no key can take (failure::usage), a set or a
// change set whose lock was lost, a change set for another revision. path is "" for a change set.
void check_value(std::string_view path, std::string_view value);
void check_changes(const change_source &changes);
host_error lock_lost(std::string_view path);
host_error tree_changed(uint64_t revision, uint64_t wanted);

// Two ways to end a change set that stopped half-way.
enum class finish { resume, undo };

// Ends the moments that the views of this thread's locks still use, after copying the rest of them.
// A store calls it before it waits for the end of all moments, or for another waiter that does.
void release_moments();

struct known_copies;
struct history_entry;
// Receives an entry of the history; false ends the delivery.
using history_sink = std::function<bool(const history_entry &entry)>;

class store : public abstract_base {
  public:
    // The present moment. part is a key whose revision is of interest, with all that is below it, and that
    // is about to be read as far as depth tells: a store that reads it in a call does so at once, as a
    // reader might take what is there before a later call fails for the whole.
    virtual std::unique_ptr<moment> now(std::string_view part = {},
                                        reach depth = reach::all_below) = 0;

    // Replaces the value of an existing key; false if there is no such key. Where fence is given,
    // nothing is written unless that lock is still held. replaced, which may be null, has the value
    // that the caller read, and receives the one that the key had; it stays as it is if an earlier try
    // without an answer replaced that.
    virtual bool set(std::string_view path, std::string_view value, const held_lock *fence,
                     std::string *replaced = nullptr) = 0;

    // Applies all changes in order, or none of them. The tree's revision moves if anything changed.
    change_counts apply(const std::vector<change> &changes, const apply_terms &terms = {});
    virtual change_counts apply(const change_source &changes, const apply_terms &terms) = 0;

    // Changes of a key and of what is below it after a revision: the next ones, waited for, or none
    // when the time is over. Nothing if the store keeps no history; failure::changed if it has
    // forgotten that revision.
    virtual std::optional<change_batch> changes_since(std::string_view path, uint64_t since,
                                                      std::chrono::milliseconds wait);

    // Delivers who changed what after a revision, the latest change first (history.h).
    virtual void history(uint64_t since, const history_sink &sink) = 0;

    // Ends a change set that stopped half-way, where that can happen; false if there is none.
    virtual bool finish_apply(finish how);

    // How often this process waited for an answer of another machine so far.
    virtual uint64_t round_trips() const { return 0; }

    // The copies of the registry handle that was closed last, for the next one (locked_view.h): a
    // program that makes a handle for each task reads as one that keeps its own.
    std::vector<std::shared_ptr<known_copies>> take_copies();
    void keep_copies(std::vector<std::shared_ptr<known_copies>> of_closed);

  private:
    std::vector<std::shared_ptr<known_copies>> of_closed_;  // guarded by fork_mutex()
};

}  // namespace keyview::host
