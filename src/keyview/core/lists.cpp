// The readers of subkeys and of their own values.
#include "keyview/core/lists.h"

#include <string.h>

#include "keyview/core/memory.h"
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "platform/trcd.h"

constexpr char SUBKEYS[] = "prsr_get_subkeys";
constexpr char PRESERVED[] = "prsr_get_case_preserved_values";  // so the trace calls it

// ---- Subkeys ------------------------------------------------------------------------------------

namespace {
// An enumeration in progress: the open key, the buffer for names, and the list that grows.
struct subkey_walk {
    subkey_walk(const prsr_ctx *owner, const char *path)
        : ctx(owner), inkey_name(path), key(owner->reg), name(owner->mem), names(owner->mem) {}

    const prsr_ctx *ctx;
    const char *inkey_name;
    prsr_key key;
    prsr_block name;  // NAME_CAPACITY bytes
    prsr_string_list names;
};
}  // namespace

static int32_t report_enumeration(const subkey_walk &walk, int32_t kv) {
    prsr_reader(walk.ctx, SUBKEYS).report("kvtc_enum_subkey", walk.inkey_name, kv);
    return PRSR_ERR_REGISTRY;
}

static int32_t keep_subkey(subkey_walk *walk, uint32_t length) {
    char *copy = prsr_copy_text(walk->ctx, SUBKEYS, walk->name.text, length);
    if (copy == nullptr) return PRSR_ERR_MEMORY;
    walk->names.items[walk->names.count++] = copy;
    return PRSR_SUCCESS;
}

// Allocates the slots that the first enumeration promised.
static int32_t alloc_slots(subkey_walk *walk, uint32_t promised) {
    walk->names.items =
        static_cast<char **>(prsr_alloc(walk->ctx, SUBKEYS, promised * sizeof(char *)));
    return walk->names.items != nullptr ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

static int32_t keep_further_subkeys(subkey_walk *walk, uint32_t promised) {
    while (walk->names.count < promised) {
        uint32_t length = 0;
        int32_t unread = 0;
        const int32_t kv =
            prsr_next_subkey(walk->key, walk->name.text, NAME_CAPACITY, &length, &unread);
        if (kv != KVTC_SUCCESS) return report_enumeration(*walk, kv);
        const int32_t rc = keep_subkey(walk, length);
        if (rc != PRSR_SUCCESS) return rc;
        trcdprintf(walk->ctx->trc, TRCD_PROGRESS, " prsr_get_subkeys: out key name is %s",
                   walk->names.items[walk->names.count - 1]);
    }
    return PRSR_SUCCESS;
}

static int32_t keep_all_subkeys(subkey_walk *walk) {
    walk->name.text = static_cast<char *>(prsr_alloc(walk->ctx, SUBKEYS, NAME_CAPACITY));
    if (walk->name.text == nullptr) return PRSR_ERR_MEMORY;

    uint32_t length = 0;
    uint32_t promised = 0;
    const int32_t kv = prsr_first_subkey(walk->key, walk->name.text, &length, &promised);
    if (kv != KVTC_SUCCESS) return report_enumeration(*walk, kv);
    if (promised == 0) return PRSR_SUCCESS;

    int32_t rc = alloc_slots(walk, promised);
    if (rc != PRSR_SUCCESS) return rc;
    rc = keep_subkey(walk, length);
    if (rc != PRSR_SUCCESS) return rc;
    return keep_further_subkeys(walk, promised);
}

int32_t prsr_get_subkeys(const prsr_ctx *ctx, const char *inkey_name, char ***list,
                         uint32_t *count) {
    *count = 0;
    subkey_walk walk(ctx, inkey_name);
    if (walk.key.open(inkey_name) != KVTC_SUCCESS) {
        trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_subkeys:NO SUBKEYS");
        return PRSR_SUCCESS;
    }
    *list = nullptr;
    const int32_t rc = keep_all_subkeys(&walk);
    if (rc != PRSR_SUCCESS) return rc;
    *list = std::exchange(walk.names.items, nullptr);
    *count = walk.names.count;
    return PRSR_SUCCESS;
}

// ---- Own values of subkeys ----------------------------------------------------------------------

static int32_t read_own_value(const prsr_reader &reader, const char *path, size_t name_length,
                              char **value) {
    prsr_key key(reader.ctx->reg);
    if (prsr_open_reported(reader, path, &key) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    prsr_block own(reader.ctx->mem);
    own.text = static_cast<char *>(prsr_alloc(reader.ctx, PRESERVED, name_length + 1));
    if (own.text == nullptr) return PRSR_ERR_MEMORY;
    if (prsr_read_name_reported(reader, path, key, own.text, name_length) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    *value = own.take();
    return PRSR_SUCCESS;
}

int32_t prsr_get_case_preserved_names(const prsr_ctx *ctx, const char *inkey_name,
                                      char *const *names, uint32_t count, char **values) {
    const prsr_reader reader(ctx, PRESERVED);
    const std::string_view list_key = inkey_name;
    for (uint32_t i = 0; i < count; ++i) {
        const std::string_view name = names[i];
        prsr_block path(ctx->mem);
        if (!prsr_join_path(ctx, PRESERVED, 0, &path, list_key, name)) {
            return PRSR_ERR_MEMORY;
        }
        const int32_t rc = read_own_value(reader, path.text, name.size(), &values[i]);
        if (rc != PRSR_SUCCESS) return rc;
        path.release();
        trcdprintf(ctx->trc, TRCD_PROGRESS,
                   "prsr_get_case_preserved_values: CASE PRESERVED NAME = %s", values[i]);
    }
    return PRSR_SUCCESS;
}
