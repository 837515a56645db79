// The flags of databases and instances. Writers hold the database's lock, exclusive, around the one
// write; readers take none.
#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/enablement/flag.h"
#include "platform/trcd.h"

namespace {
// The storage of an operation on a database's flag.
struct database_flag {
    explicit database_flag(prsr_ctx *ctx) : dbname(ctx), path(ctx->mem) {}

    prsr_name dbname;
    prsr_block path;
};

// The storage of an operation on an instance's flag.
struct instance_flag {
    explicit instance_flag(prsr_ctx *ctx) : instname(ctx), dbname(ctx), path(ctx->mem) {}

    prsr_name instname;
    prsr_name dbname;
    prsr_block path;
};
}  // namespace

static int32_t find_database_flag(prsr_ctx *ctx, const char *function, const char *dbname,
                                  database_flag *flag) {
    if (!prsr_alloc_name(ctx, function, dbname, &flag->dbname)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &flag->dbname);
    const bool joined = prsr_join_path(ctx, function, 1, &flag->path, DB_ROOT,
                                       flag->dbname.element(), model::KEY_ENABLED);
    return joined ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

static int32_t fold_instance_names(prsr_ctx *ctx, const char *function, const char *dbname,
                                   const char *instname, instance_flag *flag) {
    if (!prsr_alloc_name(ctx, function, dbname, &flag->dbname)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_name(ctx, function, instname, &flag->instname)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &flag->dbname);
    prsr_fold_name(instname, &flag->instname);
    return PRSR_SUCCESS;
}

static int32_t join_instance_path(prsr_ctx *ctx, const char *function, instance_flag *flag) {
    const bool joined =
        prsr_join_path(ctx, function, 2, &flag->path, DB_ROOT, flag->dbname.element(),
                       model::KEY_INSTANCE, flag->instname.element(), model::KEY_ENABLED);
    if (!joined) return PRSR_ERR_MEMORY;
    trcdprintf(ctx->trc, TRCD_PROGRESS, "%s: key_name = [%s]", function, flag->path.text);
    return PRSR_SUCCESS;
}

// The write, under the exclusive lock of the database.
static int32_t set_under_lock(void *status, prsr_ctx *ctx, const prsr_name &dbname,
                              const prsr_block &path, int32_t enabled) {
    prsr_held_lock lock(ctx);
    const int32_t rc = prsr_lock_keyview(status, ctx, dbname.text(), LOCK_EXCLUSIVE, &lock.token);
    if (rc != PRSR_SUCCESS) return rc;
    return prsr_set_enabled_key(ctx, path.text, enabled);
}

int32_t prsr_set_db_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                            int32_t enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    database_flag flag(ctx);
    const int32_t rc = find_database_flag(ctx, __func__, dbname, &flag);
    if (rc != PRSR_SUCCESS) return rc;
    return set_under_lock(status, ctx, flag.dbname, flag.path, enabled);
}

int32_t prsr_get_db_enabled(void *, prsr_ctx *ctx, const char *dbname, int32_t *enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    database_flag flag(ctx);
    const int32_t rc = find_database_flag(ctx, __func__, dbname, &flag);
    if (rc != PRSR_SUCCESS) return rc;
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_db_enabled: key_name = [%s]", flag.path.text);
    return prsr_get_enabled_key(ctx, flag.path.text, enabled);
}

int32_t prsr_set_instance_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                  const char *instname, int32_t enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    // A write to an instance shows in the trace even where only failures are kept.
    trcdprintf(ctx->trc, TRCD_FAILURE, "prsr_set_instance_enabled: Inside function %s, %s", dbname,
               instname);
    instance_flag flag(ctx);
    int32_t rc = fold_instance_names(ctx, __func__, dbname, instname, &flag);
    if (rc != PRSR_SUCCESS) return rc;
    rc = join_instance_path(ctx, __func__, &flag);
    if (rc != PRSR_SUCCESS) return rc;
    return set_under_lock(status, ctx, flag.dbname, flag.path, enabled);
}

int32_t prsr_get_instance_enabled(void *, prsr_ctx *ctx, const char *dbname, const char *instname,
                                  int32_t *enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_instance_enabled: Inside function %s, %s", dbname,
               instname);
    instance_flag flag(ctx);
    int32_t rc = fold_instance_names(ctx, __func__, dbname, instname, &flag);
    if (rc != PRSR_SUCCESS) return rc;
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_instance_enabled: dbname = %s, instname = %s",
               flag.dbname.text(), flag.instname.text());
    rc = join_instance_path(ctx, __func__, &flag);
    if (rc != PRSR_SUCCESS) return rc;
    return prsr_get_enabled_key(ctx, flag.path.text, enabled);
}
