// The host kit as a program sees it: which registry, which trace, how long to wait for a lock.
// Usable from C99 and C++17. Linking libkeyview-host supplies every outside operation that
// libkeyview12 asks for.
//
// A program that calls nothing here is governed by its environment:
//
//     KEYVIEW_REGISTRY     the registry's URL; there is no default
//                              lmdb:<directory>    on this machine
//                              etcd://host:port,host:port/prefix, or etcds:// with TLS
//                                                  in a cluster (docs/keyview-cluster.md)
//     KEYVIEW_LOCK_WAIT    seconds to wait for a lock, 0 to 86400; 60 by default
//     KEYVIEW_HISTORY      bytes that the history of changes may take in a registry, up to 1073741824;
//                          1048576 by default. With 0 this program records none
//     KEYVIEW_TRACE        where trace lines go:
//                              none                nowhere; the default
//                              stderr
//                              file:<path>         appended; made with mode 0600
//                              syslog
//                              journal             the local journal; journal:<path> for a socket
//                                                  elsewhere
//     KEYVIEW_TRACE_LEVEL  lines up to this level are written: 0 failures (the default), 2 also
//                          registrations, 4 also progress
//
// The environment is ignored by programs that run with raised rights. What a program chooses here
// goes before its environment, for all threads, from the next call on that needs it; contexts that
// exist keep their registry.
//
// A string is zero-terminated and stays the caller's. Functions that return a code return 0 for
// success; else all stays as it was and keyview_host_last_error tells why.
#ifndef KEYVIEW_HOST_H
#define KEYVIEW_HOST_H

#include <stdint.h>

#define KEYVIEW_HOST_FUNCTION __attribute__((visibility("default")))
#ifdef __cplusplus
extern "C" {
#endif

// Chooses the registry. Null or "" goes back to the environment. A URL of no known kind is refused;
// whether there is such a registry shows when a context is made.
KEYVIEW_HOST_FUNCTION int32_t keyview_host_set_registry(const char *url);

// Chooses how long a lock is waited for, in milliseconds: 0 tries once. At most a day; a negative
// wait goes back to the environment. Writers of a registry on one machine take turns, for the time of
// one write each, and wait 10 s at least for theirs.
KEYVIEW_HOST_FUNCTION int32_t keyview_host_set_lock_wait(int64_t wait_ms);

// How long a lock is waited for, in milliseconds; -1 if KEYVIEW_LOCK_WAIT cannot be used.
KEYVIEW_HOST_FUNCTION int64_t keyview_host_lock_wait(void);

// Chooses where trace lines go, in the words of KEYVIEW_TRACE; null means none. Choosing the file
// in use again opens it anew, as after a rotation. A sink that cannot be used is refused.
KEYVIEW_HOST_FUNCTION int32_t keyview_host_set_trace(const char *sink);

// Chooses the highest level that is written.
KEYVIEW_HOST_FUNCTION int32_t keyview_host_set_trace_level(int32_t level);

// The text of the latest failure of an outside operation or of a function of this header on this
// thread: what failed, where and why. "" if none failed yet; a success leaves it as it is. The
// text changes with the thread's next failure and ends with the thread.
KEYVIEW_HOST_FUNCTION const char *keyview_host_last_error(void);

// What kind of failure that was; 0 if none failed yet.
enum {
    KEYVIEW_FAILURE_USAGE = 1,      // a setting, a URL or an argument cannot be used
    KEYVIEW_FAILURE_NOT_FOUND = 2,  // the registry, or what was named in it, does not exist
    KEYVIEW_FAILURE_REGISTRY = 3,   // the registry cannot be reached or failed
    KEYVIEW_FAILURE_LOCK = 4,       // a lock was refused, lost or not granted in time
    KEYVIEW_FAILURE_CHANGED = 5,    // the tree changed meanwhile
    KEYVIEW_FAILURE_DENIED = 6,     // not permitted
    KEYVIEW_FAILURE_CONTENT = 7,    // the registry's content is invalid
    KEYVIEW_FAILURE_INTERNAL = 8,   // memory, or a mistake of the kit
};
KEYVIEW_HOST_FUNCTION int32_t keyview_host_last_error_kind(void);

#ifdef __cplusplus
}
#endif
#endif
