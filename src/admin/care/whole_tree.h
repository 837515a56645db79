// The whole tree, for what saves or inspects all of it, as far as it is not damaged.
#pragma once

#include <cstdint>

#include "admin/error.h"
#include "admin/key_map.h"

namespace keyview::admin {

struct whole_tree {
    key_map keys;
    uint64_t revision = 0;  // 0 if there is damage
    problem_list damage{problem_list::NO_LIMIT};
};

// Reads the tree of the registry in force as of one moment. Where it is damaged, all damage is
// KEYVIEW_FAILURE_CONTENT with this text; with salvage, the sound keys are returned with the damage,
// even if the registry cannot be opened. A registry without a sound key is a failure either way.
whole_tree read_whole_tree(bool salvage, const char *text);

struct inspected {
    uint64_t keys = 0;   // that were inspected
    uint64_t pages = 0;  // of the registry's file
};

// Inspects all of the registry in force, its pages, its rows and their checksums, and adds its sound
// keys. Works on a registry that is too damaged to be opened, and changes nothing; writers wait
// meanwhile.
inspected inspect_registry(key_map *keys, problem_list *damage);

}  // namespace keyview::admin
