// The applications of a cluster node: the whole configuration of one node, under a shared lock of
// its own. The node's key and its own name are mandatory, everything below only leaves a field
// empty.
#include <string.h>

#include "keyview/core/lists.h"
#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/core/records.h"
#include "keyview/core/registry.h"
#include "platform/trcd.h"

constexpr char NODEAPPS_CFG_TAG[] = "PRSRCFGC";
constexpr char FETCH_NODEAPPS[] = "prsr_fetch_nodeapps_config";

namespace {
// One fetch. Read upwards, the members are the order of release: the lock goes first, then the
// record, then the key that is still open, then the working storage.
struct nodeapps_fetch {
    nodeapps_fetch(void *status, prsr_ctx *owner)
        : ctx(owner),
          nodename(owner),
          node_key(owner->mem),
          field_key(owner->mem),
          value_buffer(owner->mem),
          key(owner->reg),
          record(status, owner),
          lock(owner) {}

    [[nodiscard]] prsr_reader reader() const { return {ctx, FETCH_NODEAPPS}; }
    [[nodiscard]] void *alloc(size_t size) const { return prsr_alloc(ctx, FETCH_NODEAPPS, size); }

    prsr_ctx *ctx;
    prsr_name nodename;
    prsr_block node_key;
    prsr_path_block field_key;  // a key below the node
    prsr_block value_buffer;
    prsr_value value;
    prsr_key key;  // the one key that is open
    prsr_record<prsr_nodeapps_cfg, prsr_release_nodeapps_config> record;
    prsr_held_node_lock lock;
};
}  // namespace

// ---- Setting the stage --------------------------------------------------------------------------

static int32_t make_record(nodeapps_fetch *fetch) {
    auto *cfg = static_cast<prsr_nodeapps_cfg *>(fetch->alloc(sizeof(prsr_nodeapps_cfg)));
    if (cfg == nullptr) return PRSR_ERR_MEMORY;
    tmem_fill_tag(cfg->tag, NODEAPPS_CFG_TAG);
    cfg->constant_one = 1;
    fetch->record.cfg = cfg;
    return PRSR_SUCCESS;
}

static int32_t build_node_key(nodeapps_fetch *fetch) {
    const prsr_ctx *ctx = fetch->ctx;
    return prsr_join_path(ctx, FETCH_NODEAPPS, 0, &fetch->node_key, model::NODEAPPS_ROOT,
                          fetch->nodename.element())
               ? PRSR_SUCCESS
               : PRSR_ERR_MEMORY;
}

static int32_t open_node(nodeapps_fetch *fetch) {
    const char *path = fetch->node_key.text;
    const int32_t kv = fetch->key.open(path);
    if (kv == KVTC_SUCCESS) return PRSR_SUCCESS;
    if (kv == KVTC_ERR_KEY_NOT_FOUND) {
        trcdprintf(fetch->ctx->trc, TRCD_PROGRESS,
                   "prsr_fetch_nodeapps_config: %s Key does not exist", path);
        return PRSR_ERR_NO_NODEAPPS;
    }
    fetch->reader().report("kvtc_open_key", path, kv);
    return PRSR_ERR_REGISTRY;
}

// Reads the node's own value straight into the name.
static int32_t load_name(nodeapps_fetch *fetch) {
    const size_t length = fetch->nodename.length;
    prsr_nodeapps_cfg *cfg = fetch->record.cfg;
    cfg->name = static_cast<char *>(fetch->alloc(length + 1));
    if (cfg->name == nullptr) return PRSR_ERR_MEMORY;
    if (prsr_read_name_reported(fetch->reader(), fetch->node_key.text, fetch->key, cfg->name,
                                length) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

static int32_t alloc_buffers(nodeapps_fetch *fetch) {
    if (!prsr_alloc_path(fetch->ctx, FETCH_NODEAPPS, PATH_CAPACITY, &fetch->field_key)) {
        return PRSR_ERR_MEMORY;
    }
    fetch->value_buffer.text = static_cast<char *>(fetch->alloc(VALUE_CAPACITY));
    if (fetch->value_buffer.text == nullptr) return PRSR_ERR_MEMORY;
    fetch->value.buffer = fetch->value_buffer.text;
    return PRSR_SUCCESS;
}

static bool build_field_key(nodeapps_fetch *fetch, std::string_view element) {
    const std::string_view node_key = fetch->node_key.text;
    return prsr_start_path(&fetch->field_key, node_key, element);
}

// ---- Optional strings ---------------------------------------------------------------------------

static int32_t keep_empty(nodeapps_fetch *fetch, char **field) {
    *field = static_cast<char *>(fetch->alloc(1));
    return *field != nullptr ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

// Copies the value that was read last into a field and closes its key.
static int32_t keep_value(nodeapps_fetch *fetch, char **field) {
    *field = prsr_copy_text(fetch->ctx, FETCH_NODEAPPS, fetch->value.buffer, fetch->value.length());
    if (*field == nullptr) return PRSR_ERR_MEMORY;
    fetch->key.close();
    return PRSR_SUCCESS;
}

// Opens the key of an element. *opened tells whether it can be read; if not, that was reported.
static int32_t open_field(nodeapps_fetch *fetch, std::string_view element, bool *opened) {
    *opened = false;
    if (!build_field_key(fetch, element)) return PRSR_ERR_ARGUMENT;
    *opened =
        prsr_open_reported(fetch->reader(), fetch->field_key.text, &fetch->key) == KVTC_SUCCESS;
    return PRSR_SUCCESS;
}

// Reads the open key. *readable false: that was reported, and the field is the empty string.
static int32_t read_field(nodeapps_fetch *fetch, char **field, bool *readable) {
    *readable = prsr_read_reported(fetch->reader(), fetch->field_key.text, fetch->key,
                                   &fetch->value) == KVTC_SUCCESS;
    if (*readable) return PRSR_SUCCESS;
    const int32_t rc = keep_empty(fetch, field);
    if (rc == PRSR_SUCCESS) fetch->key.close();
    return rc;
}

static int32_t load_open_string(nodeapps_fetch *fetch, char **field) {
    bool readable = false;
    const int32_t rc = read_field(fetch, field, &readable);
    if (rc != PRSR_SUCCESS || !readable) return rc;
    return keep_value(fetch, field);
}

// A key that does not open leaves the field null.
static int32_t load_string(nodeapps_fetch *fetch, std::string_view element, char **field) {
    bool opened = false;
    const int32_t rc = open_field(fetch, element, &opened);
    if (rc != PRSR_SUCCESS || !opened) return rc;
    return load_open_string(fetch, field);
}

// The address below an empty "VIP" takes its place; without one it is the empty string.
static int32_t load_vip_ip(nodeapps_fetch *fetch) {
    char **field = &fetch->record.cfg->vip;
    if (!build_field_key(fetch, model::KEY_VIP_IP)) return PRSR_ERR_ARGUMENT;
    if (fetch->key.open(fetch->field_key.text) != KVTC_SUCCESS) return keep_empty(fetch, field);
    return load_open_string(fetch, field);
}

static int32_t load_vip(nodeapps_fetch *fetch) {
    char **field = &fetch->record.cfg->vip;
    bool opened = false;
    bool readable = false;
    int32_t rc = open_field(fetch, model::KEY_VIP, &opened);
    if (rc != PRSR_SUCCESS || !opened) return rc;
    rc = read_field(fetch, field, &readable);
    if (rc != PRSR_SUCCESS || !readable) return rc;
    if (fetch->value.length() > 0) return keep_value(fetch, field);
    fetch->key.close();
    return load_vip_ip(fetch);
}

// ---- The fetch ----------------------------------------------------------------------------------

static int32_t load_fields(nodeapps_fetch *fetch) {
    prsr_nodeapps_cfg *cfg = fetch->record.cfg;
    int32_t rc = load_string(fetch, model::KEY_HOME, &cfg->home);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_vip(fetch);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_string(fetch, model::KEY_VIP_NETMASK, &cfg->netmask);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_string(fetch, model::KEY_VIP_INTERFACES, &cfg->interfaces);
    if (rc != PRSR_SUCCESS) return rc;
    if (!build_field_key(fetch, model::KEY_ENVIRONMENT)) return PRSR_ERR_ARGUMENT;
    return prsr_get_multivalues(fetch->ctx, fetch->field_key.text, &cfg->env, &cfg->env_n);
}

static int32_t lock_node(nodeapps_fetch *fetch) {
    return prsr_lock_nodeapps(fetch->record.status, fetch->ctx, fetch->nodename.text(), LOCK_SHARED,
                              &fetch->lock.token);
}

int32_t prsr_fetch_nodeapps_config(void *status, prsr_ctx *ctx, const char *nodename,
                                   prsr_nodeapps_cfg **cfg) noexcept {
    *cfg = nullptr;
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    if (nodename == nullptr || nodename[0] == '\0') return PRSR_ERR_ARGUMENT;

    nodeapps_fetch fetch(status, ctx);
    if (!prsr_alloc_name(ctx, __func__, nodename, &fetch.nodename)) return PRSR_ERR_MEMORY;
    prsr_fold_name(nodename, &fetch.nodename);
    static constexpr int32_t (*STEPS[])(nodeapps_fetch *) = {
        make_record, build_node_key, lock_node, open_node, load_name, alloc_buffers, load_fields,
    };
    for (const auto step : STEPS) {
        const int32_t rc = step(&fetch);
        if (rc != PRSR_SUCCESS) return rc;
    }
    *cfg = fetch.record.take();
    return PRSR_SUCCESS;
}

int32_t prsr_release_nodeapps_config(void *, prsr_ctx *ctx, prsr_nodeapps_cfg *cfg) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    if (cfg == nullptr || tmem_check_tag(cfg->tag, NODEAPPS_CFG_TAG) == 0) return PRSR_SUCCESS;

    void *mem = ctx->mem;
    char *const strings[] = {cfg->name, cfg->home, cfg->vip, cfg->interfaces, cfg->netmask};
    for (char *string : strings)
        prsr_free_block(mem, string);
    prsr_free_strings(mem, cfg->env, cfg->env_n);
    tmem_freem(mem, cfg);
    return PRSR_SUCCESS;
}
