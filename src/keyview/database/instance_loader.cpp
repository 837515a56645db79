// Loads one instance of a database: its own name is mandatory, everything below it optional.
#include <string.h>

#include "keyview/core/lists.h"
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "keyview/database/loaders.h"
#include "model/words.h"
#include "platform/trcd.h"
#include "platform/txt.h"

constexpr char FILL_INSTANCE[] = "prsr_fill_instance";

namespace {
// One load: the record and the buffers that it works with.
struct instance_load {
    explicit instance_load(prsr_ctx *owner)
        : ctx(owner), value_buffer(owner->mem), field_key(owner->mem), inst_key(owner->mem) {}

    [[nodiscard]] prsr_reader reader() const { return {ctx, FILL_INSTANCE}; }

    prsr_ctx *ctx;
    prsr_inst_cfg *inst = nullptr;  // not owned: it belongs to its slot
    prsr_block value_buffer;
    prsr_path_block field_key;  // a key below the instance
    prsr_path_block inst_key;
    prsr_value value;
};
}  // namespace

static int32_t alloc_buffers(instance_load *load) {
    prsr_ctx *ctx = load->ctx;
    load->value_buffer.text = static_cast<char *>(prsr_alloc(ctx, FILL_INSTANCE, VALUE_CAPACITY));
    if (load->value_buffer.text == nullptr) return PRSR_ERR_MEMORY;
    load->value.buffer = load->value_buffer.text;
    if (!prsr_alloc_path(ctx, FILL_INSTANCE, PATH_CAPACITY, &load->field_key))
        return PRSR_ERR_MEMORY;
    if (!prsr_alloc_path(ctx, FILL_INSTANCE, PATH_CAPACITY, &load->inst_key))
        return PRSR_ERR_MEMORY;
    return PRSR_SUCCESS;
}

static int32_t build_instance_key(instance_load *load, const char *db_key, const char *key_name) {
    if (!prsr_start_path(&load->inst_key, db_key, model::KEY_INSTANCE, key_name)) {
        return PRSR_ERR_ARGUMENT;
    }
    // The keys below start with the same text, and only their last element changes.
    if (!prsr_start_path(&load->field_key, load->inst_key.view())) return PRSR_ERR_ARGUMENT;
    trcdprintf(load->ctx->trc, TRCD_PROGRESS, "prsr_fill_instance: Instance Key = %s",
               load->inst_key.text);
    return PRSR_SUCCESS;
}

static bool build_field_key(instance_load *load, std::string_view element) {
    return prsr_extend_path(&load->field_key, load->inst_key.length, element);
}

// Reads the instance's own value straight into the name.
static int32_t load_name(instance_load *load, size_t length) {
    const prsr_reader reader = load->reader();
    const char *path = load->inst_key.text;
    prsr_key key(load->ctx->reg);
    if (prsr_open_reported(reader, path, &key) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    const int32_t kv = prsr_read_name_reported(reader, path, key, load->inst->name, length);
    return kv == KVTC_SUCCESS ? PRSR_SUCCESS : PRSR_ERR_REGISTRY;
}

static int32_t load_node(instance_load *load) {
    if (!build_field_key(load, model::KEY_NODE)) return PRSR_ERR_ARGUMENT;
    const prsr_reader reader = load->reader();
    const char *path = load->field_key.text;
    trcdprintf(load->ctx->trc, TRCD_PROGRESS,
               "prsr_fill_instance: inst_key_name = %s  Node Name key = %s", load->inst_key.text,
               path);
    prsr_key key(load->ctx->reg);
    if (prsr_open_reported(reader, path, &key) != KVTC_SUCCESS) return PRSR_SUCCESS;
    if (prsr_read_reported(reader, path, key, &load->value) != KVTC_SUCCESS) return PRSR_SUCCESS;

    const uint32_t length = load->value.length();
    load->inst->node = prsr_copy_text(load->ctx, FILL_INSTANCE, load->value.buffer, length);
    if (load->inst->node == nullptr) return PRSR_ERR_MEMORY;
    trcdprintf(load->ctx->trc, TRCD_PROGRESS, "prsr_fill_instance: Node Name = %s , val_size = %d",
               load->inst->node, static_cast<int>(length));
    return PRSR_SUCCESS;
}

static int32_t load_env(instance_load *load) {
    if (!build_field_key(load, model::KEY_ENVIRONMENT)) return PRSR_ERR_ARGUMENT;
    // An unreadable list is an empty one; the reader has logged it.
    (void)prsr_get_multivalues(load->ctx, load->field_key.text, &load->inst->env,
                               &load->inst->env_n);
    return PRSR_SUCCESS;
}

static int32_t load_enabled(instance_load *load) {
    if (!build_field_key(load, model::KEY_ENABLED)) return PRSR_ERR_ARGUMENT;
    const prsr_reader reader = load->reader();
    const char *path = load->field_key.text;
    prsr_key key(load->ctx->reg);
    if (prsr_open_reported(reader, path, &key) != KVTC_SUCCESS) return PRSR_SUCCESS;
    if (prsr_read_reported(reader, path, key, &load->value) != KVTC_SUCCESS) return PRSR_SUCCESS;
    load->inst->enabled = txtclo(load->value.text(), model::FLAG_FALSE) == 0 ? 0 : 1;
    return PRSR_SUCCESS;
}

// Gives up a record that its caller shall not see.
static int32_t drop_record(instance_load *load, prsr_inst_cfg **inst_slot, int32_t rc) {
    *inst_slot = nullptr;
    (void)prsr_free_instance(load->ctx->mem, load->inst);
    return rc;
}

// What comes once the record hangs in its slot.
static int32_t load_instance(instance_load *load, prsr_inst_cfg **inst_slot, size_t name_length) {
    load->inst->name = static_cast<char *>(prsr_alloc(load->ctx, FILL_INSTANCE, name_length + 1));
    if (load->inst->name == nullptr) return drop_record(load, inst_slot, PRSR_ERR_MEMORY);
    int32_t rc = load_name(load, name_length);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_node(load);
    if (rc == PRSR_ERR_MEMORY) return drop_record(load, inst_slot, rc);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_env(load);
    if (rc != PRSR_SUCCESS) return rc;
    return load_enabled(load);
}

int32_t prsr_fill_instance(prsr_ctx *ctx, const char *db_key, prsr_inst_cfg **inst_slot,
                           const char *key_name) {
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fill_instance: db_key = %s key name = %s", db_key,
               key_name);
    instance_load load(ctx);
    load.inst = static_cast<prsr_inst_cfg *>(prsr_alloc(ctx, FILL_INSTANCE, sizeof(prsr_inst_cfg)));
    if (load.inst == nullptr) return PRSR_ERR_MEMORY;
    int32_t rc = alloc_buffers(&load);
    if (rc == PRSR_SUCCESS) rc = build_instance_key(&load, db_key, key_name);
    if (rc != PRSR_SUCCESS) {
        tmem_freem(ctx->mem, load.inst);
        return rc;
    }
    *inst_slot = load.inst;
    return load_instance(&load, inst_slot, strlen(key_name));
}
