// Loads one service of a database. The instances that it names are sorted by their TYPE into two
// lists, in service_instances.cpp; a service that names none has its name only.
#include <stddef.h>

#include <type_traits>

#include "keyview/database/loaders.h"
#include "keyview/database/service_instances.h"
#include "keyview/names/policy.h"
#include "model/roots.h"
#include "platform/trcd.h"

static_assert(std::is_standard_layout_v<prsr_srv_cfg>, "offsetof needs a plain record");

static const prsr_field SERVICE_FIELDS[] = {
    {model::KEY_ENVIRONMENT, prsr_rule::LIST, offsetof(prsr_srv_cfg, env),
     offsetof(prsr_srv_cfg, env_n)},
    {model::KEY_RCN_POLICY, prsr_rule::NUMBER, offsetof(prsr_srv_cfg, rcn_policy), 0,
     prsr_parse_policy},
    {model::KEY_ENABLED, prsr_rule::NUMBER, offsetof(prsr_srv_cfg, enabled), 0, prsr_parse_enabled},
};

static int32_t load_service(child_load *load, prsr_srv_cfg *srv, size_t name_length) {
    int32_t rc = prsr_load_child_name(load, name_length, &srv->name);
    if (rc != PRSR_SUCCESS) return rc;
    trcdprintf(load->ctx->trc, TRCD_PROGRESS, "prsr_fill_service: srvcompname = %s", srv->name);
    bool any = false;
    rc = prsr_load_service_instances(load, srv, &any);
    if (rc != PRSR_SUCCESS || !any) return rc;
    return prsr_load_fields(&load->fields, SERVICE_FIELDS, srv);
}

int32_t prsr_fill_service(prsr_ctx *ctx, const char *dbname, const char *dbkey,
                          prsr_srv_cfg **srv_slot, const char *srvname) {
    trcdprintf(ctx->trc, TRCD_PROGRESS,
               "prsr_fill_service: dbname = [%s], dbkey = [%s],  srvname = %s", dbname, dbkey,
               srvname);
    child_load load(ctx, FILL_SERVICE);
    auto *srv = static_cast<prsr_srv_cfg *>(prsr_alloc(ctx, FILL_SERVICE, sizeof(prsr_srv_cfg)));
    if (srv == nullptr) return PRSR_ERR_MEMORY;
    const std::string_view element = srvname;
    const int32_t rc = prsr_start_child(&load, dbkey, model::KEY_SERVICE, element);
    if (rc != PRSR_SUCCESS) {
        tmem_freem(ctx->mem, srv);
        return rc;
    }
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fill_service: srv key name = %s",
               load.record_key.text);
    *srv_slot = srv;
    return load_service(&load, srv, element.size());
}
