// The flag of one instance of a service, and whether that instance is supported: of a known type
// and enabled. The write is made under the shared lock, so several of them, and readers, run side
// by side.
#include <string.h>

#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "keyview/enablement/flag.h"
#include "model/words.h"
#include "platform/trcd.h"

namespace {
// The folded names of a service instance. Read upwards, the members are the order of release.
struct instance_names {
    explicit instance_names(const prsr_ctx *ctx) : instance(ctx), service(ctx), database(ctx) {}

    prsr_name instance;
    prsr_name service;
    prsr_name database;
};
}  // namespace

// Allocates all three names and folds the first two.
static int32_t alloc_names(const prsr_ctx *ctx, const char *function, const char *dbname,
                           const char *srvname, const char *instname, instance_names *names) {
    if (!prsr_alloc_name(ctx, function, dbname, &names->database)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_service_name(ctx, function, srvname, &names->service)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_name(ctx, function, instname, &names->instance)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &names->database);
    prsr_fold_name(srvname, &names->service);
    return PRSR_SUCCESS;
}

static int32_t fold_names(const prsr_ctx *ctx, const char *function, const char *dbname,
                          const char *srvname, const char *instname, instance_names *names) {
    const int32_t rc = alloc_names(ctx, function, dbname, srvname, instname, names);
    if (rc != PRSR_SUCCESS) return rc;
    prsr_map_service_name(&names->service);
    prsr_fold_name(instname, &names->instance);
    return PRSR_SUCCESS;
}

static bool join_flag_path(const prsr_ctx *ctx, const char *function, const instance_names &names,
                           prsr_block *path) {
    return prsr_join_path(ctx, function, 3, path, DB_ROOT, names.database.element(),
                          model::KEY_SERVICE, names.service.element(), model::KEY_INSTANCES,
                          names.instance.element(), model::KEY_ENABLED);
}

int32_t prsr_set_service_instance_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                          const char *srvname, const char *instname,
                                          int32_t enabled) noexcept {
    // The name under which the trace knows this operation.
    constexpr char TRACED_AS[] = "prsr_set_service_instance_supported";
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    instance_names names(ctx);
    prsr_block path(ctx->mem);
    prsr_held_lock lock(ctx);
    int32_t rc = fold_names(ctx, TRACED_AS, dbname, srvname, instname, &names);
    if (rc != PRSR_SUCCESS) return rc;
    if (!join_flag_path(ctx, TRACED_AS, names, &path)) return PRSR_ERR_MEMORY;
    rc = prsr_lock_keyview(status, ctx, names.database.text(), LOCK_SHARED, &lock.token);
    if (rc != PRSR_SUCCESS) return rc;
    return prsr_set_enabled_key(ctx, path.text, enabled);
}

static void log_names(const prsr_ctx *ctx, const char *dbname, const char *srvname,
                      const char *instname) {
    trcdprintf(ctx->trc, TRCD_PROGRESS,
               "prsr_get_service_instance_enabled: Inside function dbname=%s, servname=%s, "
               "instname=%s",
               dbname, srvname, instname);
}

int32_t prsr_get_service_instance_enabled(void *, prsr_ctx *ctx, const char *dbname,
                                          const char *srvname, const char *instname,
                                          int32_t *enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    log_names(ctx, dbname, srvname, instname);
    instance_names names(ctx);
    prsr_block path(ctx->mem);
    const int32_t rc = fold_names(ctx, __func__, dbname, srvname, instname, &names);
    if (rc != PRSR_SUCCESS) return rc;
    log_names(ctx, names.database.text(), names.service.text(), names.instance.text());
    if (!join_flag_path(ctx, __func__, names, &path)) return PRSR_ERR_MEMORY;
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_service_instance_enabled: ENABLED KEY NAME = %s",
               path.text);
    return prsr_get_enabled_key(ctx, path.text, enabled);
}

// ---- Supported ----------------------------------------------------------------------------------

namespace {
// One query. Read upwards, the members are the order of release.
struct support_query {
    explicit support_query(prsr_ctx *owner)
        : ctx(owner), type(owner->mem), names(owner), path(owner->mem), base(owner->mem) {}

    prsr_ctx *ctx;
    prsr_block type;
    instance_names names;
    prsr_path_block path;  // first the type, then the flag
    prsr_block base;
};
}  // namespace

static int32_t alloc_query(support_query *query, const char *function, const char *dbname,
                           const char *srvname, const char *instname) {
    prsr_ctx *ctx = query->ctx;
    instance_names *names = &query->names;
    const int32_t rc = alloc_names(ctx, function, dbname, srvname, instname, names);
    if (rc != PRSR_SUCCESS) return rc;
    prsr_fold_name(instname, &names->instance);
    prsr_map_service_name(&names->service);  // last, unlike in the two operations above
    // A lack of memory for the base path is the one that leaves no message.
    if (!prsr_join_path(ctx, nullptr, 3, &query->base, DB_ROOT, names->database.element(),
                        model::KEY_SERVICE, names->service.element(), model::KEY_INSTANCES,
                        names->instance.element())) {
        return PRSR_ERR_MEMORY;
    }
    return prsr_alloc_path(ctx, function, PATH_CAPACITY, &query->path) ? PRSR_SUCCESS
                                                                       : PRSR_ERR_MEMORY;
}

int32_t prsr_get_service_instance_supported(void *, prsr_ctx *ctx, const char *dbname,
                                            const char *srvname, const char *instname,
                                            int32_t *supported) noexcept {
    *supported = 0;
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    support_query query(ctx);
    int32_t rc = alloc_query(&query, __func__, dbname, srvname, instname);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_start_path(&query.path, query.base.text, model::KEY_TYPE)) return PRSR_ERR_ARGUMENT;
    rc = prsr_open_get_value(ctx, query.path.text, &query.type.text);
    if (rc != PRSR_SUCCESS) return rc;
    const char *type = query.type.text;
    if (strcmp(type, model::TYPE_PREFERRED) != 0 && strcmp(type, model::TYPE_AVAILABLE) != 0)
        return PRSR_SUCCESS;

    int32_t enabled = 0;
    if (!prsr_start_path(&query.path, query.base.text, model::KEY_ENABLED))
        return PRSR_ERR_ARGUMENT;
    rc = prsr_get_enabled_key(ctx, query.path.text, &enabled);
    if (rc == PRSR_SUCCESS) *supported = enabled;
    return rc;
}
