// Frees a database's record, complete or not: every test is for null, and blocks start zeroed.
#include "keyview/core/memory.h"
#include "keyview/database/loaders.h"
#include "keyview/database/record.h"

void prsr_free_instance(void *mem, prsr_inst_cfg *inst) {
    prsr_free_block(mem, inst->node);
    prsr_free_block(mem, inst->name);
    prsr_free_strings(mem, inst->env, inst->env_n);
    tmem_freem(mem, inst);
}

void prsr_free_service(void *mem, prsr_srv_cfg *srv) {
    prsr_free_block(mem, srv->name);
    prsr_free_slots(mem, srv->available, srv->available_count);
    prsr_free_block(mem, srv->available_enabled);
    prsr_free_block(mem, srv->available);
    prsr_free_slots(mem, srv->preferred, srv->preferred_count);
    prsr_free_block(mem, srv->preferred_enabled);
    prsr_free_block(mem, srv->preferred);
    prsr_free_strings(mem, srv->env, srv->env_n);
    tmem_freem(mem, srv);
}

static void free_instances(void *mem, prsr_cfg *cfg) {
    for (uint32_t i = 0; i < cfg->instance_count; ++i) {
        if (cfg->instances[i] != nullptr) prsr_free_instance(mem, cfg->instances[i]);
    }
    cfg->instance_count = 0;
    prsr_free_block(mem, cfg->instances);
}

static void free_services(void *mem, prsr_cfg *cfg) {
    for (uint32_t i = 0; i < cfg->service_count; ++i) {
        if (cfg->services[i] != nullptr) prsr_free_service(mem, cfg->services[i]);
    }
    cfg->service_count = 0;
    prsr_free_block(mem, cfg->services);
}

int32_t prsr_release_db_config(void *, prsr_ctx *ctx, prsr_cfg *cfg) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    if (cfg == nullptr || tmem_check_tag(cfg, PRSR_CFG_TAG) == 0) return PRSR_SUCCESS;

    void *mem = ctx->mem;
    char *const strings[] = {cfg->sp_name, cfg->alias_ip,      cfg->home,
                             cfg->spfile,  cfg->domain,        cfg->db_name,
                             cfg->role,    cfg->start_options, cfg->policy};
    for (char *string : strings)
        prsr_free_block(mem, string);
    free_instances(mem, cfg);
    free_services(mem, cfg);
    prsr_free_strings(mem, cfg->env, cfg->env_n);
    tmem_freem(mem, cfg);
    return PRSR_SUCCESS;
}
