// Takes and releases the named locks.
#include "keyview/core/locks.h"

#include <string.h>

#include "keyview/core/memory.h"
#include "keyview/core/paths.h"
#include "model/locks.h"
#include "platform/lksv.h"

// Without its ".", which the path builder appends.
constexpr std::string_view LOCK_HEAD{model::LOCK_HEAD, sizeof model::LOCK_HEAD - 2};

static int32_t ask_lock_service(void *status, prsr_ctx *ctx, int32_t mode, const char *name) {
    return mode == LOCK_EXCLUSIVE ? lksvlsmutexlock(status, ctx->lk, name)
                                  : lksvlsshrlock(status, ctx->lk, name);
}

// Builds "LKRT.<root>" or "LKRT.<root>.<name>"; the block is as large as if there were a name.
static bool build_lock_name(prsr_ctx *ctx, const char *function, std::string_view root,
                            const char *name, prsr_block *path) {
    if (name == nullptr) {
        return prsr_join_path(ctx, function, 1, path, LOCK_HEAD, root);
    }
    return prsr_join_path(ctx, function, 0, path, LOCK_HEAD, root, name);
}

static int32_t take_lock(void *status, prsr_ctx *ctx, const char *function, std::string_view root,
                         const char *name, int32_t mode, char **token) {
    *token = nullptr;
    prsr_block lock_name(ctx->mem);
    if (!build_lock_name(ctx, function, root, name, &lock_name)) return PRSR_ERR_MEMORY;
    if (ask_lock_service(status, ctx, mode, lock_name.text) != 0) return PRSR_ERR_LOCK;
    *token = lock_name.take();
    return PRSR_SUCCESS;
}

static void release_lock(prsr_ctx *ctx, char *token) {
    if (token == nullptr) return;
    // The service may read the whole block, so all of it is initialized.
    uint64_t status[224 / sizeof(uint64_t)] = {};
    (void)lksvlsunlock(status, ctx->lk, token);  // no other remedy exists
    tmem_freem(ctx->mem, token);
}

int32_t prsr_lock_keyview(void *status, prsr_ctx *ctx, const char *dbname, int32_t mode,
                          char **token) {
    return take_lock(status, ctx, __func__, DB_ROOT, dbname, mode, token);
}

int32_t prsr_lock_nodeapps(void *status, prsr_ctx *ctx, const char *nodename, int32_t mode,
                           char **token) {
    return take_lock(status, ctx, __func__, model::NODEAPPS_ROOT, nodename, mode, token);
}

void prsr_unlock_keyview(prsr_ctx *ctx, char *token) {
    release_lock(ctx, token);
}

void prsr_unlock_nodeapps(prsr_ctx *ctx, char *token) {
    release_lock(ctx, token);
}
