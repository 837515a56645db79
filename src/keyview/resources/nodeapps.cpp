// The applications of a cluster node: the whole configuration of one node, under a shared lock of
// its own. The node's key and its own name are mandatory, everything below only leaves a field
// empty.
#include <stddef.h>

#include <type_traits>

#include "keyview/core/fields.h"
#include "keyview/core/locks.h"
#include "keyview/core/records.h"
#include "model/roots.h"
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
          fields(owner, FETCH_NODEAPPS, &key),
          key(owner->reg),
          record(status, owner),
          lock(owner) {}

    prsr_ctx *ctx;
    prsr_name nodename;
    prsr_block node_key;
    prsr_field_reader fields;
    prsr_key key;  // the one key that is open
    prsr_record<prsr_nodeapps_cfg, prsr_release_nodeapps_config> record;
    prsr_held_node_lock lock;
};
}  // namespace

static_assert(std::is_standard_layout_v<prsr_nodeapps_cfg>, "offsetof needs a plain record");

static const prsr_field HOME_FIELD[] = {
    {model::KEY_HOME, prsr_rule::STRING, offsetof(prsr_nodeapps_cfg, home)},
};
static const prsr_field OTHER_FIELDS[] = {
    {model::KEY_VIP_NETMASK, prsr_rule::STRING, offsetof(prsr_nodeapps_cfg, netmask)},
    {model::KEY_VIP_INTERFACES, prsr_rule::STRING, offsetof(prsr_nodeapps_cfg, interfaces)},
    {model::KEY_ENVIRONMENT, prsr_rule::WHOLE_LIST, offsetof(prsr_nodeapps_cfg, env),
     offsetof(prsr_nodeapps_cfg, env_n)},
};

static int32_t make_record(nodeapps_fetch *fetch) {
    auto *cfg = static_cast<prsr_nodeapps_cfg *>(
        prsr_alloc(fetch->ctx, FETCH_NODEAPPS, sizeof(prsr_nodeapps_cfg)));
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
    fetch->fields.reader.report("kvtc_open_key", path, kv);
    return PRSR_ERR_REGISTRY;
}

static int32_t load_name(nodeapps_fetch *fetch) {
    const int32_t rc = prsr_load_name(fetch->fields.reader, fetch->node_key.text, &fetch->key,
                                      fetch->nodename.length, &fetch->record.cfg->name);
    if (rc == PRSR_SUCCESS) fetch->key.close();
    return rc;
}

static int32_t alloc_buffers(nodeapps_fetch *fetch) {
    if (!prsr_alloc_field_path(&fetch->fields) || !prsr_alloc_field_value(&fetch->fields)) {
        return PRSR_ERR_MEMORY;
    }
    return prsr_start_fields(&fetch->fields, fetch->node_key.text) ? PRSR_SUCCESS
                                                                   : PRSR_ERR_ARGUMENT;
}

// The address of a node whose "VIP" is empty: that below it, or else the empty string.
static int32_t load_vip_ip(nodeapps_fetch *fetch) {
    prsr_field_reader *fields = &fetch->fields;
    char **field = &fetch->record.cfg->vip;
    if (!prsr_build_field(fields, model::KEY_VIP_IP)) return PRSR_ERR_ARGUMENT;
    if (fetch->key.open(fields->path.text) == KVTC_SUCCESS) {
        return prsr_load_open_field(fields, field);
    }
    return prsr_keep_field(fields, field);  // the empty value of "VIP"
}

static int32_t load_vip(nodeapps_fetch *fetch) {
    prsr_field_reader *fields = &fetch->fields;
    if (!prsr_build_field(fields, model::KEY_VIP)) return PRSR_ERR_ARGUMENT;
    if (prsr_open_reported(fields->reader, fields->path.text, &fetch->key) != KVTC_SUCCESS) {
        return PRSR_SUCCESS;
    }
    if (!prsr_read_field(fields) || fields->value.length() > 0) {
        return prsr_keep_field(fields, &fetch->record.cfg->vip);
    }
    fetch->key.close();
    return load_vip_ip(fetch);
}

// ---- The fetch ----------------------------------------------------------------------------------

static int32_t load_fields(nodeapps_fetch *fetch) {
    prsr_nodeapps_cfg *cfg = fetch->record.cfg;
    int32_t rc = prsr_load_fields(&fetch->fields, HOME_FIELD, cfg);
    if (rc == PRSR_SUCCESS) rc = load_vip(fetch);
    if (rc == PRSR_SUCCESS) rc = prsr_load_fields(&fetch->fields, OTHER_FIELDS, cfg);
    return rc;
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
    int32_t rc = make_record(&fetch);
    if (rc == PRSR_SUCCESS) rc = build_node_key(&fetch);
    if (rc == PRSR_SUCCESS) rc = lock_node(&fetch);
    if (rc == PRSR_SUCCESS) rc = open_node(&fetch);
    if (rc == PRSR_SUCCESS) rc = load_name(&fetch);
    if (rc == PRSR_SUCCESS) rc = alloc_buffers(&fetch);
    if (rc == PRSR_SUCCESS) rc = load_fields(&fetch);
    if (rc == PRSR_SUCCESS) *cfg = fetch.record.take();
    return rc;
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
