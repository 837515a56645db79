// Storage manager entries: the whole configuration of one, its registered name, its flag.
#include <stddef.h>

#include <type_traits>

#include "keyview/core/fields.h"
#include "keyview/core/records.h"
#include "keyview/enablement/flag.h"
#include "keyview/names/stored_name.h"
#include "model/locks.h"
#include "model/roots.h"
#include "platform/lksv.h"

constexpr std::string_view STG_ROOT = model::STG_ROOT;
// Without its ".", which the path builder appends.
constexpr std::string_view STG_LOCK_HEAD{model::STG_LOCK_HEAD, sizeof model::STG_LOCK_HEAD - 2};
constexpr char STG_CFG_TAG[] = "PRSRCFGA";
constexpr char FETCH_STG[] = "prsr_fetch_stg_config";

namespace {
// The folded names of an entry. Read upwards, the members are the order of release.
struct entry_names {
    explicit entry_names(const prsr_ctx *ctx) : name(ctx), scope(ctx) {}

    prsr_name name;
    prsr_name scope;
};

// One fetch. Read upwards, the members are the order of release.
struct stg_fetch {
    stg_fetch(void *status_block, prsr_ctx *owner)
        : status(status_block),
          ctx(owner),
          record(status_block, owner),
          names(owner),
          entry_key(owner->mem),
          lock_name(owner->mem),
          key(owner->reg),
          fields(owner, FETCH_STG, &key) {}

    void *status;
    prsr_ctx *ctx;
    prsr_record<prsr_stg_cfg, prsr_release_stg_config> record;
    entry_names names;
    prsr_block entry_key;
    prsr_block lock_name;
    prsr_key key;
    prsr_field_reader fields;  // without a value buffer
};
}  // namespace

static_assert(std::is_standard_layout_v<prsr_stg_cfg>, "offsetof needs a plain record");

static const prsr_field STG_FIELDS[] = {
    {model::KEY_SPFILE, prsr_rule::LONG_STRING, offsetof(prsr_stg_cfg, spfile)},
    {model::KEY_HOME, prsr_rule::LONG_STRING, offsetof(prsr_stg_cfg, home)},
    {model::KEY_START_OPTIONS, prsr_rule::LONG_STRING, offsetof(prsr_stg_cfg, start_options)},
    {model::KEY_VERSION, prsr_rule::LONG_STRING, offsetof(prsr_stg_cfg, version)},
    {model::KEY_ENVIRONMENT, prsr_rule::WHOLE_LIST, offsetof(prsr_stg_cfg, env),
     offsetof(prsr_stg_cfg, env_n)},
};

static int32_t fold_names(const prsr_ctx *ctx, const char *function, const char *stg_scope,
                          const char *stg_name, entry_names *names) {
    if (!prsr_alloc_name(ctx, function, stg_scope, &names->scope)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_name(ctx, function, stg_name, &names->name)) return PRSR_ERR_MEMORY;
    prsr_fold_name(stg_scope, &names->scope);
    prsr_fold_name(stg_name, &names->name);
    return PRSR_SUCCESS;
}

// ---- The fetch ----------------------------------------------------------------------------------

static int32_t make_record(stg_fetch *fetch) {
    auto *cfg =
        static_cast<prsr_stg_cfg *>(prsr_alloc(fetch->ctx, FETCH_STG, sizeof(prsr_stg_cfg)));
    if (cfg == nullptr) return PRSR_ERR_MEMORY;
    tmem_fill_tag(cfg, STG_CFG_TAG);
    fetch->record.cfg = cfg;
    return PRSR_SUCCESS;
}

// Checks that the entry exists, before any lock is taken. A missing one is not logged.
static int32_t find_entry(stg_fetch *fetch) {
    const prsr_ctx *ctx = fetch->ctx;
    if (!prsr_join_path(ctx, FETCH_STG, 0, &fetch->entry_key, STG_ROOT,
                        fetch->names.scope.element(), fetch->names.name.element())) {
        return PRSR_ERR_MEMORY;
    }
    prsr_key key(ctx->reg);
    const int32_t kv = key.open(fetch->entry_key.text);
    if (kv == KVTC_SUCCESS) return PRSR_SUCCESS;
    if (kv == KVTC_ERR_KEY_NOT_FOUND) return PRSR_ERR_NO_STG;
    prsr_reader(ctx, FETCH_STG).report("kvtc_open_key", fetch->entry_key.text, kv);
    return PRSR_ERR_REGISTRY;
}

static int32_t alloc_lock_and_path(stg_fetch *fetch) {
    const prsr_ctx *ctx = fetch->ctx;
    const std::string_view entry_key = fetch->entry_key.text;
    if (!prsr_join_path(ctx, FETCH_STG, 1, &fetch->lock_name, STG_LOCK_HEAD, entry_key)) {
        return PRSR_ERR_MEMORY;
    }
    return prsr_alloc_field_path(&fetch->fields) ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

// The reads under the lock. Only the environment can end them.
static int32_t load_entry(stg_fetch *fetch) {
    prsr_stg_cfg *cfg = fetch->record.cfg;
    if (!prsr_start_fields(&fetch->fields, fetch->entry_key.text)) return PRSR_ERR_ARGUMENT;
    const int32_t rc = prsr_load_fields(&fetch->fields, STG_FIELDS, cfg);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_build_field(&fetch->fields, model::KEY_ENABLED)) return PRSR_ERR_ARGUMENT;
    int32_t enabled = 0;  // if the flag cannot be read, which has been reported
    (void)prsr_get_enabled_key(fetch->ctx, fetch->fields.path.text, &enabled);
    cfg->enabled = static_cast<uint32_t>(enabled);
    return PRSR_SUCCESS;
}

// The one lock that is taken and released with the caller's status, and whose release counts.
static int32_t load_under_lock(stg_fetch *fetch) {
    void *lk = fetch->ctx->lk;
    if (lksvlsshrlock(fetch->status, lk, fetch->lock_name.text) != 0) return PRSR_ERR_LOCK;
    const int32_t rc = load_entry(fetch);
    const int32_t unlocked = lksvlsunlock(fetch->status, lk, fetch->lock_name.text);
    return rc == PRSR_SUCCESS && unlocked != 0 ? PRSR_ERR_LOCK : rc;
}

int32_t prsr_fetch_stg_config(void *status, prsr_ctx *ctx, const char *stg_scope,
                              const char *stg_name, prsr_stg_cfg **cfg) noexcept {
    *cfg = nullptr;
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    stg_fetch fetch(status, ctx);
    int32_t rc = fold_names(ctx, __func__, stg_scope, stg_name, &fetch.names);
    if (rc == PRSR_SUCCESS) rc = make_record(&fetch);
    if (rc == PRSR_SUCCESS) rc = find_entry(&fetch);
    if (rc == PRSR_SUCCESS) rc = alloc_lock_and_path(&fetch);
    if (rc == PRSR_SUCCESS) rc = load_under_lock(&fetch);
    if (rc == PRSR_SUCCESS) *cfg = fetch.record.take();
    return rc;
}

int32_t prsr_release_stg_config(void *, prsr_ctx *ctx, prsr_stg_cfg *cfg) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    if (cfg == nullptr || tmem_check_tag(cfg, STG_CFG_TAG) == 0) return PRSR_SUCCESS;

    void *mem = ctx->mem;
    char *const strings[] = {cfg->spfile, cfg->home, cfg->start_options, cfg->version};
    for (char *string : strings)
        prsr_free_block(mem, string);
    prsr_free_strings(mem, cfg->env, cfg->env_n);
    tmem_freem(mem, cfg);
    return PRSR_SUCCESS;
}

// ---- Name and flag ------------------------------------------------------------------------------

namespace {
// One query. Read upwards, the members are the order of release.
struct entry_query {
    explicit entry_query(const prsr_ctx *ctx)
        : value(ctx->mem), names(ctx), path(ctx->mem), key(ctx->reg) {}

    prsr_block value;
    entry_names names;
    prsr_path_block path;
    prsr_key key;
};
}  // namespace

static int32_t alloc_query(const prsr_ctx *ctx, const char *function, const char *stg_scope,
                           const char *stg_name, entry_query *query) {
    const int32_t rc = fold_names(ctx, function, stg_scope, stg_name, &query->names);
    if (rc != PRSR_SUCCESS) return rc;
    return prsr_alloc_path(ctx, function, PATH_CAPACITY, &query->path) ? PRSR_SUCCESS
                                                                       : PRSR_ERR_MEMORY;
}

int32_t prsr_get_stg_name(void *, prsr_ctx *ctx, const char *stg_scope, const char *stg_name,
                          uint32_t bufsize, char *buf) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    entry_query query(ctx);
    const int32_t rc = alloc_query(ctx, __func__, stg_scope, stg_name, &query);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_start_path(&query.path, STG_ROOT, query.names.scope.element(),
                         query.names.name.element())) {
        buf[0] = '\0';
        return PRSR_ERR_ARGUMENT;
    }
    return prsr_read_stored_name(ctx, __func__, query.path.text, PRSR_ERR_NO_STG, &query.key,
                                 &query.value, bufsize, buf);
}

int32_t prsr_get_stg_enabled(void *, prsr_ctx *ctx, const char *stg_scope, const char *stg_name,
                             int32_t *enabled) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    entry_query query(ctx);
    int32_t rc = alloc_query(ctx, __func__, stg_scope, stg_name, &query);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_start_path(&query.path, STG_ROOT, query.names.scope.element(),
                         query.names.name.element(), model::KEY_ENABLED)) {
        return PRSR_ERR_ARGUMENT;
    }
    rc = prsr_get_enabled_key(ctx, query.path.text, enabled);
    return rc == PRSR_ERR_NO_DATABASE ? PRSR_ERR_NO_STG : rc;
}
