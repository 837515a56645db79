// Cluster-wide named locks over parts of the key tree. A token is the lock's name in a block of the
// context's memory: the proof that the lock is held, and the argument of its release. An operation
// holds one lock at most.
#pragma once

#include <stdint.h>

#include "keyview/core/context.h"

constexpr int32_t LOCK_EXCLUSIVE = 0;
constexpr int32_t LOCK_SHARED = 1;  // as any other value

// Takes the lock of a database, or with a null dbname that of all databases.
//
// dbname  folded
// token   out; null after a failure
//
// Returns PRSR_ERR_MEMORY; PRSR_ERR_LOCK if the lock service refuses, about which nothing is
// logged.
[[nodiscard]] int32_t prsr_lock_keyview(void *status, prsr_ctx *ctx, const char *dbname,
                                        int32_t mode, char **token);

// The same for the applications of a node; nodename is not null.
[[nodiscard]] int32_t prsr_lock_nodeapps(void *status, prsr_ctx *ctx, const char *nodename,
                                         int32_t mode, char **token);

// Release a lock and free its token. A null token does nothing.
void prsr_unlock_keyview(prsr_ctx *ctx, char *token);
void prsr_unlock_nodeapps(prsr_ctx *ctx, char *token);

// A lock, released by its own unlock at the end of the scope. Not held at first.
template <void (*Unlock)(prsr_ctx *, char *)>
struct prsr_lock_guard {
    explicit prsr_lock_guard(prsr_ctx *owner) : ctx(owner) {}
    ~prsr_lock_guard() { Unlock(ctx, token); }
    prsr_lock_guard(const prsr_lock_guard &) = delete;
    prsr_lock_guard &operator=(const prsr_lock_guard &) = delete;

    prsr_ctx *ctx;
    char *token = nullptr;
};
using prsr_held_lock = prsr_lock_guard<prsr_unlock_keyview>;
using prsr_held_node_lock = prsr_lock_guard<prsr_unlock_nodeapps>;
