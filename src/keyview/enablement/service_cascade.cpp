// The flag of a service. Setting it runs a cascade: the service's own flag first, then the flag of
// each instance that it names, all under one exclusive lock of the database. Nothing is undone when
// the cascade stops; the remaining flags stay as they were.
#include <algorithm>

#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "keyview/core/service_names.h"
#include "keyview/enablement/flag.h"

constexpr char SET_SERVICE[] = "prsr_set_service_enabled";

namespace {
// One cascade. Read upwards, the members are the order of release.
struct cascade {
    cascade(prsr_ctx *owner, int32_t value)
        : ctx(owner),
          enabled(value),
          subkey(owner->mem),
          names(owner),
          path(owner->mem),
          list(owner->reg),
          lock(owner) {}

    [[nodiscard]] int32_t write(const char *flag_path) const {
        return prsr_set_enabled_key(ctx, flag_path, enabled);
    }

    prsr_ctx *ctx;
    int32_t enabled;
    prsr_block subkey;  // NAME_CAPACITY bytes
    prsr_service_names names;
    prsr_path_block path;  // first the service's flag, then the list of its instances
    size_t service_length = 0;
    prsr_key list;
    prsr_held_lock lock;
};
}  // namespace

static int32_t alloc_cascade_path(cascade *run) {
    constexpr std::string_view FLAG = model::KEY_ENABLED;
    constexpr std::string_view LIST = model::KEY_INSTANCES;
    const size_t capacity = DB_ROOT.size() + run->names.database.length +
                            sizeof model::KEY_SERVICE - 1 + run->names.service.length +
                            std::max(FLAG.size(), LIST.size()) + 7;
    if (!prsr_alloc_path(run->ctx, SET_SERVICE, capacity, &run->path)) return PRSR_ERR_MEMORY;
    // Neither can fail: the block was sized for the longer of the two paths.
    (void)prsr_start_path(&run->path, DB_ROOT, run->names.database.element(), model::KEY_SERVICE,
                          run->names.service.element());
    run->service_length = run->path.length;
    (void)prsr_extend_path(&run->path, run->service_length, FLAG);
    return PRSR_SUCCESS;
}

static int32_t report_enumeration(const cascade &run, int32_t kv) {
    prsr_reader(run.ctx, SET_SERVICE).report("kvtc_enum_subkey", run.path.text, kv);
    return PRSR_ERR_REGISTRY;
}

// Writes the flag of the instance whose element was read last.
static int32_t write_instance(const cascade &run) {
    prsr_block flag_path(run.ctx->mem);
    if (!prsr_join_path(run.ctx, SET_SERVICE, 2, &flag_path, DB_ROOT, run.names.database.element(),
                        model::KEY_SERVICE, run.names.service.element(), model::KEY_INSTANCES,
                        run.subkey.text, model::KEY_ENABLED)) {
        return PRSR_ERR_MEMORY;
    }
    return run.write(flag_path.text);
}

// The instances in the order of the enumeration, the first one's element already read.
static int32_t write_instances(cascade *run, uint32_t count) {
    for (uint32_t i = 0;; ++i) {
        const int32_t rc = write_instance(*run);
        if (rc != PRSR_SUCCESS) return rc;
        if (i + 1 == count) return PRSR_SUCCESS;

        uint32_t length = 0;
        int32_t unread = 0;
        const int32_t kv =
            prsr_next_subkey(run->list, run->subkey.text, NAME_CAPACITY, &length, &unread);
        if (kv != KVTC_SUCCESS) return report_enumeration(*run, kv);
    }
}

static int32_t run_cascade(cascade *run) {
    const prsr_reader reader(run->ctx, SET_SERVICE);
    (void)prsr_extend_path(&run->path, run->service_length,
                           model::KEY_INSTANCES);  // it was sized for it
    if (prsr_open_reported(reader, run->path.text, &run->list) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    run->subkey.text = static_cast<char *>(prsr_alloc(run->ctx, SET_SERVICE, NAME_CAPACITY));
    if (run->subkey.text == nullptr) return PRSR_ERR_MEMORY;

    uint32_t length = 0;
    uint32_t count = 0;
    const int32_t kv = prsr_first_subkey(run->list, run->subkey.text, &length, &count);
    if (kv != KVTC_SUCCESS) return report_enumeration(*run, kv);
    return count == 0 ? PRSR_SUCCESS : write_instances(run, count);
}

int32_t prsr_set_service_enabled(void *status, prsr_ctx *ctx, const char *dbname,
                                 const char *srvname, int32_t enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    cascade run(ctx, enabled);
    int32_t rc = prsr_fold_service_names(ctx, __func__, dbname, srvname, &run.names);
    if (rc != PRSR_SUCCESS) return rc;
    rc = alloc_cascade_path(&run);
    if (rc != PRSR_SUCCESS) return rc;
    rc = prsr_lock_keyview(status, ctx, run.names.database.text(), LOCK_EXCLUSIVE, &run.lock.token);
    if (rc != PRSR_SUCCESS) return rc;
    // The instances are written even if the service's own flag failed; that failure is returned
    // last.
    const int32_t own_rc = run.write(run.path.text);
    rc = run_cascade(&run);
    return rc != PRSR_SUCCESS ? rc : own_rc;
}

int32_t prsr_get_service_enabled(void *, prsr_ctx *ctx, const char *dbname, const char *srvname,
                                 int32_t *enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    prsr_service_names names(ctx);
    prsr_block path(ctx->mem);
    const int32_t rc = prsr_fold_service_names(ctx, __func__, dbname, srvname, &names);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_join_path(ctx, __func__, 2, &path, DB_ROOT, names.database.element(),
                        model::KEY_SERVICE, names.service.element(), model::KEY_ENABLED)) {
        return PRSR_ERR_MEMORY;
    }
    return prsr_get_enabled_key(ctx, path.text, enabled);
}
