// One load of an instance or a service: a record of its own below the database's.
#pragma once

#include <string_view>

#include "keyview/core/fields.h"

// Read upwards, the members are the order of release.
struct child_load {
    child_load(prsr_ctx *owner, const char *function)
        : ctx(owner), fields(owner, function, &key), record_key(owner->mem), key(owner->reg) {}

    prsr_ctx *ctx;
    prsr_field_reader fields;
    prsr_path_block record_key;
    prsr_key key;  // the one key that is open
};

// Allocates the buffers and makes record_key the path of an element of a list below the database.
// Returns PRSR_ERR_ARGUMENT if it does not fit; PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_start_child(child_load *load, const char *db_key, const char *list,
                                       std::string_view element);

// Reads the child's own value into its name and closes its key. Codes as for prsr_load_name.
[[nodiscard]] int32_t prsr_load_child_name(child_load *load, size_t length, char **name);
