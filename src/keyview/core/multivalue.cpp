// The reader of multi-values: strings with their zero bytes, one after the other, and one zero byte
// more at the end. A stored value need not have that format, so each step is bounded by its size
// and by the slots of the list.
#include <string.h>

#include "keyview/core/lists.h"
#include "keyview/core/memory.h"
#include "keyview/core/registry.h"
#include "platform/trcd.h"

constexpr char MULTIVALUES[] = "prsr_get_multivalues";

namespace {
struct multivalue {
    multivalue(const prsr_ctx *owner, const char *path)
        : ctx(owner), inkey_name(path), key(owner->reg), first(owner->mem), second(owner->mem) {}

    const prsr_ctx *ctx;
    const char *inkey_name;
    prsr_key key;
    prsr_block first;      // VALUE_CAPACITY bytes
    prsr_block second;     // for a longer value, the reported size + 1 bytes
    char *text = nullptr;  // the one of them that holds the value
    size_t room = 0;       // bytes of its block
    uint32_t size = 0;     // bytes of the value
};
}  // namespace

// Reads into a block of room bytes, of which the registry may fill capacity.
static int32_t read_into(multivalue *value, size_t room, uint32_t capacity, prsr_block *block) {
    uint32_t type = 0;
    value->text = block->text;
    value->room = room;
    value->size = capacity;
    const int32_t kv =
        kvtc_get_value(value->key.reg, value->key.handle, &type, block->text, &value->size);
    if (kv == KVTC_SUCCESS && value->size > capacity) value->size = capacity;
    return kv;
}

static bool alloc_buffer(multivalue *value, size_t size, prsr_block *buffer) {
    buffer->text = static_cast<char *>(prsr_alloc(value->ctx, MULTIVALUES, size));
    return buffer->text != nullptr;
}

// Reads the value, into a second buffer if it is long. *readable becomes false after a report.
static int32_t read_value(multivalue *value, bool *readable) {
    *readable = false;
    if (!alloc_buffer(value, VALUE_CAPACITY, &value->first)) return PRSR_ERR_MEMORY;
    int32_t kv = read_into(value, VALUE_CAPACITY, VALUE_CAPACITY, &value->first);
    if (kv == KVTC_ERR_MORE_DATA) {
        const uint32_t reported = value->size;
        const size_t room = static_cast<size_t>(reported) + 1;
        if (!alloc_buffer(value, room, &value->second)) return PRSR_ERR_MEMORY;
        kv = read_into(value, room, reported, &value->second);
    }
    *readable = kv == KVTC_SUCCESS;
    if (!*readable) {
        prsr_reader(value->ctx, MULTIVALUES).report("kvtc_get_value", value->inkey_name, kv);
    }
    return PRSR_SUCCESS;
}

static int32_t count_zero_bytes(const multivalue &value) {
    int32_t zeros = 0;
    for (uint32_t i = 0; i < value.size; ++i)
        zeros += value.text[i] == '\0' ? 1 : 0;
    return zeros;
}

static void log_value(const multivalue &value, const char *text) {
    trcdprintf(value.ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues: SUCCESS in getting value [%s]",
               text);
}

// Writes the value to the trace as a string, which it need not be.
static void show_value(const multivalue &value, bool has_zero) {
    if (value.size < value.room) {
        value.text[value.size] = '\0';
    } else if (!has_zero) {
        char shown[VALUE_CAPACITY + 1];  // only the first buffer can be full
        memcpy(shown, value.text, VALUE_CAPACITY);
        shown[VALUE_CAPACITY] = '\0';
        log_value(value, shown);
        return;
    }
    log_value(value, value.text);
}

// The number of strings; less than 1 for an empty list.
static int32_t count_strings(const multivalue &value) {
    const int32_t zeros = count_zero_bytes(value);
    show_value(value, zeros > 0);
    if (value.size == 0) return 0;
    trcdprintf(value.ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues: Number of strings = %d",
               zeros - 1);
    return zeros - 1;
}

static int32_t keep_string(const multivalue &value, const char *string, size_t length,
                           char **slot) {
    trcdprintf(value.ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues: value length = %d",
               static_cast<int>(length));
    *slot = static_cast<char *>(prsr_alloc(value.ctx, MULTIVALUES, length + 1));
    if (*slot == nullptr) return PRSR_ERR_MEMORY;
    trcdprintf(value.ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues: successful memory allocation");
    memcpy(*slot, string, length + 1);
    trcdprintf(value.ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues: next string = [%s]", *slot);
    return PRSR_SUCCESS;
}

// Fills the slots. Every string ends within the value: there is one zero byte more than slots.
static int32_t split(const multivalue &value, prsr_string_list *list) {
    const char *string = value.text;
    const char *last = value.text + value.size - 1;  // the zero byte behind the strings
    for (uint32_t slot = 0; slot < list->count && string < last && *string != '\0'; ++slot) {
        const size_t length = strlen(string);
        const int32_t rc = keep_string(value, string, length, &list->items[slot]);
        if (rc != PRSR_SUCCESS) return rc;
        string += length + 1;
    }
    return PRSR_SUCCESS;
}

int32_t prsr_get_multivalues(const prsr_ctx *ctx, const char *inkey_name, char ***list,
                             uint32_t *count) {
    *count = 0;
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues: inkey_name = %s", inkey_name);
    multivalue value(ctx, inkey_name);
    if (value.key.open(inkey_name) != KVTC_SUCCESS) {
        trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_multivalues:NO SUBKEYS");
        return PRSR_SUCCESS;
    }
    bool readable = false;
    int32_t rc = read_value(&value, &readable);
    if (rc != PRSR_SUCCESS || !readable) return rc;

    *list = nullptr;
    const int32_t strings = count_strings(value);
    if (strings < 1) {
        value.key.close();  // an empty list closes the key before it frees the buffers
        return PRSR_SUCCESS;
    }
    prsr_string_list split_list(ctx->mem);
    split_list.items = static_cast<char **>(
        prsr_alloc(ctx, MULTIVALUES, static_cast<size_t>(strings) * sizeof(char *)));
    if (split_list.items == nullptr) return PRSR_ERR_MEMORY;
    split_list.count = static_cast<uint32_t>(strings);
    rc = split(value, &split_list);
    if (rc != PRSR_SUCCESS) return rc;
    *list = std::exchange(split_list.items, nullptr);
    *count = split_list.count;
    return PRSR_SUCCESS;
}
