// The failure report and the reads of values.
#include "keyview/core/registry.h"

#include <string.h>

#include "keyview/core/memory.h"
#include "platform/trcd.h"

void prsr_reader::report(const char *operation, const char *path, int32_t kv) const {
    char message[1024] = {};  // all of it: a text without its zero byte must not show our stack
    uint32_t size = sizeof message;
    int32_t code = 0;
    (void)kvtc_get_last_error(ctx->reg, &code, message,
                              &size);  // unfilled fields stay empty
    message[sizeof message - 1] = '\0';
    trcdprintf(ctx->trc, TRCD_FAILURE, "%s: KVT api %s failed for key %s with %d", function,
               operation, path, kv);
    trcdprintf(ctx->trc, TRCD_FAILURE, "KVT error code : %d", code);
    trcdprintf(ctx->trc, TRCD_FAILURE, "KVT error msg : %s", message);
}

int32_t prsr_read_value(const prsr_key &key, prsr_value *value) {
    uint32_t type = 0;
    value->size = VALUE_CAPACITY;
    return kvtc_get_value(key.reg, key.handle, &type, value->buffer, &value->size);
}

int32_t prsr_next_subkey(const prsr_key &key, char *name, uint32_t capacity, uint32_t *length,
                         int32_t *last) {
    *length = capacity;
    name[0] = '\0';
    const int32_t kv = kvtc_enum_subkey(key.reg, key.handle, name, length, last);
    if (*length > capacity) *length = capacity;
    // The reported length may count the zero byte, and may be more than that.
    if (capacity > 0) name[*length < capacity ? *length : capacity - 1] = '\0';
    return kv;
}

int32_t prsr_first_subkey(const prsr_key &key, char *name, uint32_t *length, uint32_t *count) {
    *count = 0;
    int32_t last = 0;
    const int32_t kv = prsr_next_subkey(key, name, NAME_CAPACITY, length, &last);
    const bool answered = kv == KVTC_SUCCESS || kv == KVTC_ERR_NO_MORE_KEYS;
    if (answered && last < 0) return KVTC_SUCCESS;
    if (kv == KVTC_SUCCESS) *count = static_cast<uint32_t>(last) + 1;
    return kv;
}

int32_t prsr_open_reported(const prsr_reader &reader, const char *path, prsr_key *key) {
    const int32_t kv = key->open(path);
    if (kv != KVTC_SUCCESS) reader.report("kvtc_open_key", path, kv);
    return kv;
}

int32_t prsr_read_reported(const prsr_reader &reader, const char *path, const prsr_key &key,
                           prsr_value *value) {
    const int32_t kv = prsr_read_value(key, value);
    if (kv != KVTC_SUCCESS) reader.report("kvtc_get_value", path, kv);
    return kv;
}

int32_t prsr_read_name_reported(const prsr_reader &reader, const char *path, const prsr_key &key,
                                char *name, size_t length) {
    uint32_t type = 0;
    uint32_t size = static_cast<uint32_t>(length) + 1;
    const int32_t kv = kvtc_get_value(key.reg, key.handle, &type, name, &size);
    name[length] = '\0';
    if (kv != KVTC_SUCCESS) reader.report("kvtc_get_value", path, kv);
    return kv;
}

// ---- Values of any length -----------------------------------------------------------------------

constexpr char OPEN_GET_VALUE[] = "prsr_open_get_value";
constexpr uint32_t FIRST_CAPACITY = 64;

// A block with the capacity that the registry may fill. Nothing reads beyond it.
struct growing_value {
    char **block;
    uint32_t capacity;
};

static bool alloc_value(prsr_ctx *ctx, uint32_t capacity, growing_value *value) {
    // If the registry reports a length of 0, the block still holds a zero byte.
    const size_t size = capacity > 0 ? capacity : 1;
    *value->block = static_cast<char *>(prsr_alloc(ctx, OPEN_GET_VALUE, size));
    value->capacity = capacity;
    return *value->block != nullptr;
}

static int32_t read_into(const prsr_key &key, const growing_value &value, uint32_t *size) {
    uint32_t type = 0;
    *size = value.capacity;
    return kvtc_get_value(key.reg, key.handle, &type, *value.block, size);
}

// A value that fills its block without a zero byte moves to a block with room for one.
static int32_t terminate(prsr_ctx *ctx, const growing_value &value) {
    if (value.capacity == 0 || memchr(*value.block, '\0', value.capacity) != nullptr) {
        return PRSR_SUCCESS;
    }
    char *longer = prsr_copy_text(ctx, OPEN_GET_VALUE, *value.block, value.capacity);
    tmem_freem(ctx->mem, *value.block);
    *value.block = longer;
    return longer != nullptr ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

int32_t prsr_open_get_value(prsr_ctx *ctx, const char *key_name, char **value) {
    growing_value grown{value, 0};
    if (!alloc_value(ctx, FIRST_CAPACITY, &grown)) return PRSR_ERR_MEMORY;

    const prsr_reader reader(ctx, OPEN_GET_VALUE);
    prsr_key key(ctx->reg);
    if (prsr_open_reported(reader, key_name, &key) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    uint32_t size = 0;
    int32_t kv = read_into(key, grown, &size);
    if (kv == KVTC_ERR_MORE_DATA) {
        tmem_freem(ctx->mem, *value);
        if (!alloc_value(ctx, size, &grown)) return PRSR_ERR_MEMORY;
        kv = read_into(key, grown, &size);
    }
    if (kv != KVTC_SUCCESS) {
        reader.report("kvtc_get_value", key_name, kv);
        **value = '\0';  // whatever a failed read left there, the block reads as empty
        return PRSR_ERR_REGISTRY;
    }
    return terminate(ctx, grown);
}
