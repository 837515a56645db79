// Loads one service of a database. The instances that it names are sorted by their TYPE into two
// lists, in service_instances.cpp; a service that names none has its name only.
#include <string.h>

#include "keyview/core/lists.h"
#include "keyview/database/loaders.h"
#include "keyview/database/service_load.h"
#include "keyview/names/policy.h"
#include "model/words.h"
#include "platform/trcd.h"
#include "platform/txt.h"

static int32_t alloc_buffers(service_load *load) {
    prsr_ctx *ctx = load->ctx;
    load->value_buffer.text = static_cast<char *>(prsr_alloc(ctx, FILL_SERVICE, VALUE_CAPACITY));
    if (load->value_buffer.text == nullptr) return PRSR_ERR_MEMORY;
    load->value.buffer = load->value_buffer.text;
    if (!prsr_alloc_path(ctx, FILL_SERVICE, PATH_CAPACITY, &load->field_key))
        return PRSR_ERR_MEMORY;
    if (!prsr_alloc_path(ctx, FILL_SERVICE, PATH_CAPACITY, &load->srv_key)) return PRSR_ERR_MEMORY;
    return PRSR_SUCCESS;
}

static int32_t build_service_key(service_load *load, const char *dbkey) {
    if (!prsr_start_path(&load->srv_key, dbkey, model::KEY_SERVICE, load->srvname)) {
        return PRSR_ERR_ARGUMENT;
    }
    // The keys below start with the same text, and only what follows it changes.
    if (!prsr_start_path(&load->field_key, load->srv_key.view())) return PRSR_ERR_ARGUMENT;
    trcdprintf(load->ctx->trc, TRCD_PROGRESS, "prsr_fill_service: srv key name = %s",
               load->srv_key.text);
    return PRSR_SUCCESS;
}

bool prsr_build_service_field(service_load *load, std::string_view element) {
    return prsr_extend_path(&load->field_key, load->srv_key.length, element);
}

// Reads the service's own value straight into the name.
static int32_t load_name(service_load *load) {
    const size_t length = load->srvname.size();
    load->srv->name = static_cast<char *>(prsr_alloc(load->ctx, FILL_SERVICE, length + 1));
    if (load->srv->name == nullptr) return PRSR_ERR_MEMORY;

    const prsr_reader &reader = load->reader;
    const char *path = load->srv_key.text;
    prsr_key key(load->ctx->reg);
    if (prsr_open_reported(reader, path, &key) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    if (prsr_read_name_reported(reader, path, key, load->srv->name, length) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    key.close();
    trcdprintf(load->ctx->trc, TRCD_PROGRESS, "prsr_fill_service: srvcompname = %s",
               load->srv->name);
    return PRSR_SUCCESS;
}

static int32_t load_env(service_load *load) {
    if (!prsr_build_service_field(load, model::KEY_ENVIRONMENT)) return PRSR_ERR_ARGUMENT;
    // An unreadable list is an empty one; the reader has logged it.
    (void)prsr_get_multivalues(load->ctx, load->field_key.text, &load->srv->env, &load->srv->env_n);
    return PRSR_SUCCESS;
}

// Turns an optional word below the service into a number; without the word the field stays 0.
static int32_t load_word(service_load *load, std::string_view element,
                         int32_t (*parse)(const char *), int32_t *field) {
    if (!prsr_build_service_field(load, element)) return PRSR_ERR_ARGUMENT;
    const prsr_reader &reader = load->reader;
    const char *path = load->field_key.text;
    prsr_key key(load->ctx->reg);
    if (prsr_open_reported(reader, path, &key) != KVTC_SUCCESS) return PRSR_SUCCESS;
    if (prsr_read_reported(reader, path, key, &load->value) != KVTC_SUCCESS) return PRSR_SUCCESS;
    *field = parse(load->value.text());
    return PRSR_SUCCESS;
}

// Everything but FALSE enables a service itself, unlike its instances.
static int32_t parse_enabled(const char *value) {
    return txtclo(value, model::FLAG_FALSE) == 0 ? 0 : 1;
}

static int32_t load_service(service_load *load) {
    int32_t rc = load_name(load);
    if (rc != PRSR_SUCCESS) return rc;
    bool any = false;
    rc = prsr_load_service_instances(load, &any);
    if (rc != PRSR_SUCCESS || !any) return rc;
    rc = load_env(load);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_word(load, model::KEY_RCN_POLICY, prsr_parse_policy, &load->srv->rcn_policy);
    if (rc != PRSR_SUCCESS) return rc;
    return load_word(load, model::KEY_ENABLED, parse_enabled, &load->srv->enabled);
}

int32_t prsr_fill_service(prsr_ctx *ctx, const char *dbname, const char *dbkey,
                          prsr_srv_cfg **srv_slot, const char *srvname) {
    trcdprintf(ctx->trc, TRCD_PROGRESS,
               "prsr_fill_service: dbname = [%s], dbkey = [%s],  srvname = %s", dbname, dbkey,
               srvname);
    service_load load(ctx, dbname, srvname);
    load.srv = static_cast<prsr_srv_cfg *>(prsr_alloc(ctx, FILL_SERVICE, sizeof(prsr_srv_cfg)));
    if (load.srv == nullptr) return PRSR_ERR_MEMORY;
    int32_t rc = alloc_buffers(&load);
    if (rc == PRSR_SUCCESS) rc = build_service_key(&load, dbkey);
    if (rc != PRSR_SUCCESS) {
        tmem_freem(ctx->mem, load.srv);
        return rc;
    }
    *srv_slot = load.srv;
    return load_service(&load);
}
