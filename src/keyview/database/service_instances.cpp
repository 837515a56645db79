// Sorts the instances of a service by their TYPE into the lists of preferred and available ones,
// with a flag each. Two passes over the same subkeys: the first counts the kinds, so that each list
// is one allocation, the second fills the lists. The lock makes both see the same types; where it
// does not, a list takes no more than it has room for, and keeps null slots at its end.
#include "keyview/database/service_instances.h"
#include "keyview/core/lists.h"

#include "keyview/enablement/flag.h"
#include "model/roots.h"
#include "model/words.h"
#include "platform/trcd.h"

namespace {
enum class instance_kind { NEITHER, AVAILABLE, PREFERRED };

// The instances that a service names: their elements and their registered names.
struct named_instances {
    explicit named_instances(void *mem) : preserved(mem), subkeys(mem) {}

    prsr_string_list preserved;
    prsr_string_list subkeys;
};

struct kind_counts {
    uint32_t available = 0;
    uint32_t preferred = 0;
};

// A service's list of instances while it is read.
struct list_reading {
    child_load *load;
    size_t key_length;  // of the list's own key in the path
    named_instances *named;
};

// One list of the record while it is filled.
struct filling_list {
    char **names;
    int32_t *flags;
    uint32_t room;
    uint32_t filled = 0;
};
}  // namespace

static void *alloc_array(child_load *load, size_t count, size_t slot_size) {
    return prsr_alloc(load->ctx, FILL_SERVICE, count * slot_size);
}

// ---- One instance's type ------------------------------------------------------------------------

// By value: so the end that is written behind the text changes none of its fields.
static instance_kind kind_of(prsr_value value) {
    if (value.is(model::TYPE_PREFERRED)) return instance_kind::PREFERRED;
    if (value.is(model::TYPE_AVAILABLE)) return instance_kind::AVAILABLE;
    return instance_kind::NEITHER;
}

// Reads the type of an instance. A missing type is reported and counts as neither.
static int32_t read_kind(const list_reading &list, std::string_view subkey, instance_kind *kind) {
    prsr_field_reader *fields = &list.load->fields;
    *kind = instance_kind::NEITHER;
    if (!prsr_extend_path(&fields->path, list.key_length, subkey, model::KEY_TYPE)) {
        return PRSR_ERR_ARGUMENT;
    }
    const char *path = fields->path.text;
    prsr_key key(fields->ctx->reg);
    const int32_t kv = prsr_open_reported(fields->reader, path, &key);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) return PRSR_SUCCESS;
    if (kv != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    if (prsr_read_reported(fields->reader, path, key, &fields->value) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    *kind = kind_of(fields->value);
    return PRSR_SUCCESS;
}

// ---- First pass ---------------------------------------------------------------------------------

static int32_t count_kinds(const list_reading &list, kind_counts *counts) {
    const prsr_string_list &subkeys = list.named->subkeys;
    for (uint32_t i = 0; i < subkeys.count; ++i) {
        instance_kind kind;
        const int32_t rc = read_kind(list, subkeys.items[i], &kind);
        if (rc != PRSR_SUCCESS) return rc;
        if (kind == instance_kind::AVAILABLE) ++counts->available;
        if (kind == instance_kind::PREFERRED) ++counts->preferred;
    }
    return PRSR_SUCCESS;
}

// ---- The lists ----------------------------------------------------------------------------------

// A list of names has a spare slot, its flags do not; both exist for a count of 0 as well.
static int32_t alloc_list(child_load *load, uint32_t count, char ***names, int32_t **flags,
                          uint32_t *list_count) {
    *names =
        static_cast<char **>(alloc_array(load, static_cast<size_t>(count) + 1, sizeof(char *)));
    if (*names == nullptr) return PRSR_ERR_MEMORY;
    *flags = static_cast<int32_t *>(alloc_array(load, count, sizeof(int32_t)));
    if (*flags == nullptr) return PRSR_ERR_MEMORY;
    *list_count = count;
    return PRSR_SUCCESS;
}

static int32_t alloc_lists(child_load *load, const kind_counts &counts, prsr_srv_cfg *srv) {
    const int32_t rc = alloc_list(load, counts.available, &srv->available, &srv->available_enabled,
                                  &srv->available_count);
    if (rc != PRSR_SUCCESS) return rc;
    return alloc_list(load, counts.preferred, &srv->preferred, &srv->preferred_enabled,
                      &srv->preferred_count);
}

// ---- Second pass --------------------------------------------------------------------------------

// Reads the flag of the instance whose own key has this length in the path. One that cannot be read
// has been reported and stays 0.
static int32_t read_flag(child_load *load, size_t key_length, int32_t *flag) {
    prsr_path *path = &load->fields.path;
    (void)prsr_extend_path(path, key_length);  // back from the type's key
    prsr_block flag_path(load->ctx->mem);
    if (!prsr_join_path(load->ctx, FILL_SERVICE, 3, &flag_path, path->view(), model::KEY_ENABLED)) {
        return PRSR_ERR_MEMORY;
    }
    (void)prsr_get_enabled_key(load->ctx, flag_path.text, flag);
    return PRSR_SUCCESS;
}

// Moves an instance's name to the end of a list, with its flag.
static int32_t take_instance(child_load *load, size_t key_length, char **preserved,
                             filling_list *list) {
    if (list->filled == list->room) return PRSR_SUCCESS;
    list->names[list->filled] = std::exchange(*preserved, nullptr);
    const int32_t rc = read_flag(load, key_length, &list->flags[list->filled]);
    if (rc != PRSR_SUCCESS) return rc;
    ++list->filled;
    return PRSR_SUCCESS;
}

static int32_t fill_lists(const list_reading &list, const prsr_srv_cfg &srv) {
    filling_list available{srv.available, srv.available_enabled, srv.available_count};
    filling_list preferred{srv.preferred, srv.preferred_enabled, srv.preferred_count};
    const named_instances &named = *list.named;
    for (uint32_t i = 0; i < named.subkeys.count; ++i) {
        instance_kind kind;
        const std::string_view subkey = named.subkeys.items[i];
        int32_t rc = read_kind(list, subkey, &kind);
        if (rc != PRSR_SUCCESS) return rc;
        if (kind == instance_kind::NEITHER) continue;
        filling_list *filled = kind == instance_kind::AVAILABLE ? &available : &preferred;
        rc = take_instance(list.load, list.key_length + 1 + subkey.size(),
                           &named.preserved.items[i], filled);
        if (rc != PRSR_SUCCESS) return rc;
    }
    return PRSR_SUCCESS;
}

// ---- The lists of a service ---------------------------------------------------------------------

// Reads the registered names of the subkeys at list_key.
static int32_t read_preserved_names(child_load *load, const char *list_key,
                                    named_instances *named) {
    const prsr_ctx *ctx = load->ctx;
    const uint32_t count = named->subkeys.count;
    named->preserved.items = static_cast<char **>(alloc_array(load, count, sizeof(char *)));
    if (named->preserved.items == nullptr) return PRSR_ERR_MEMORY;
    named->preserved.count = count;
    const int32_t rc = prsr_get_case_preserved_names(ctx, list_key, named->subkeys.items, count,
                                                     named->preserved.items);
    if (rc != PRSR_SUCCESS) {
        trcdprintf(ctx->trc, TRCD_FAILURE,
                   "prsr_fill_service: prsr_get_case_preserved_names failed, rc = %d", rc);
    }
    return rc;
}

int32_t prsr_load_service_instances(child_load *load, prsr_srv_cfg *srv, bool *any) {
    const prsr_ctx *ctx = load->ctx;
    *any = false;
    if (!prsr_build_field(&load->fields, model::KEY_INSTANCES)) return PRSR_ERR_ARGUMENT;
    const char *list_key = load->fields.path.text;
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fill_service: key name = [%s]", list_key);
    named_instances named(ctx->mem);
    int32_t rc = prsr_get_subkeys(ctx, list_key, &named.subkeys.items, &named.subkeys.count);
    // Subkeys that cannot be read are no subkeys; the reader has logged it.
    if (rc != PRSR_SUCCESS || named.subkeys.count == 0) return PRSR_SUCCESS;

    *any = true;
    rc = read_preserved_names(load, list_key, &named);
    if (rc != PRSR_SUCCESS) return rc;
    const list_reading list{load, load->fields.path.length, &named};
    kind_counts counts;
    rc = count_kinds(list, &counts);
    if (rc != PRSR_SUCCESS) return rc;
    rc = alloc_lists(load, counts, srv);
    if (rc != PRSR_SUCCESS) return rc;
    return fill_lists(list, *srv);
}
