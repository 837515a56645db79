// Loads one instance of a database: its own name is mandatory, everything below it optional.
#include <stddef.h>
#include <string.h>

#include <type_traits>

#include "keyview/database/child_load.h"
#include "keyview/database/loaders.h"
#include "model/roots.h"
#include "platform/trcd.h"

constexpr char FILL_INSTANCE[] = "prsr_fill_instance";

static_assert(std::is_standard_layout_v<prsr_inst_cfg>, "offsetof needs a plain record");

static const prsr_field INSTANCE_FIELDS[] = {
    {model::KEY_ENVIRONMENT, prsr_rule::LIST, offsetof(prsr_inst_cfg, env),
     offsetof(prsr_inst_cfg, env_n)},
    {model::KEY_ENABLED, prsr_rule::NUMBER, offsetof(prsr_inst_cfg, enabled), 0,
     prsr_parse_enabled},
};

// Unlike a string of the database, a node that cannot be read stays null.
static int32_t load_node(child_load *load, prsr_inst_cfg *inst) {
    prsr_field_reader *fields = &load->fields;
    if (!prsr_build_field(fields, model::KEY_NODE)) return PRSR_ERR_ARGUMENT;
    const char *path = fields->path.text;
    trcdprintf(load->ctx->trc, TRCD_PROGRESS,
               "prsr_fill_instance: inst_key_name = %s  Node Name key = %s", load->record_key.text,
               path);
    if (prsr_open_reported(fields->reader, path, &load->key) != KVTC_SUCCESS) return PRSR_SUCCESS;
    if (prsr_read_field(fields)) {
        const uint32_t length = fields->value.length();
        inst->node = prsr_copy_text(load->ctx, FILL_INSTANCE, fields->value.buffer, length);
        if (inst->node == nullptr) return PRSR_ERR_MEMORY;
        trcdprintf(load->ctx->trc, TRCD_PROGRESS,
                   "prsr_fill_instance: Node Name = %s , val_size = %d", inst->node,
                   static_cast<int>(length));
    }
    load->key.close();
    return PRSR_SUCCESS;
}

static int32_t load_instance(child_load *load, prsr_inst_cfg *inst, size_t name_length) {
    int32_t rc = prsr_load_child_name(load, name_length, &inst->name);
    if (rc == PRSR_SUCCESS) rc = load_node(load, inst);
    if (rc == PRSR_SUCCESS) rc = prsr_load_fields(&load->fields, INSTANCE_FIELDS, inst);
    return rc;
}

int32_t prsr_fill_instance(prsr_ctx *ctx, const char *db_key, prsr_inst_cfg **inst_slot,
                           const char *key_name) {
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fill_instance: db_key = %s key name = %s", db_key,
               key_name);
    child_load load(ctx, FILL_INSTANCE);
    auto *inst =
        static_cast<prsr_inst_cfg *>(prsr_alloc(ctx, FILL_INSTANCE, sizeof(prsr_inst_cfg)));
    if (inst == nullptr) return PRSR_ERR_MEMORY;
    int32_t rc = prsr_start_child(&load, db_key, model::KEY_INSTANCE, key_name);
    if (rc != PRSR_SUCCESS) {
        tmem_freem(ctx->mem, inst);
        return rc;
    }
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fill_instance: Instance Key = %s",
               load.record_key.text);
    *inst_slot = inst;
    rc = load_instance(&load, inst, strlen(key_name));
    if (rc == PRSR_ERR_MEMORY) {  // the caller does not receive a record without its name or node
        load.key.close();
        *inst_slot = nullptr;
        prsr_free_instance(ctx->mem, inst);
    }
    return rc;
}
