// Single keys: read, set and removed.
#pragma once

#include <string>
#include <vector>

#include "admin/change/plan.h"

namespace keyview::admin {

struct read_keys_result {
    key_map keys;  // in the order of the paths, parents before their children
    uint64_t revision = 0;
};

// Reads a key of the registry in force, with its children or all below it, as of one moment. Takes
// no lock. KEYVIEW_FAILURE_NOT_FOUND if there is no such key.
read_keys_result read_keys(const std::string &path, reach depth);

// Creates a key or replaces its value; removes keys with all that is below them, all or none of them
// (KEYVIEW_FAILURE_NOT_FOUND if there is no such key). Under the locks of the databases, entries and
// nodes that the keys belong to. A value that is stored already is not written.
change_result set_key(const std::string &path, const std::string &value,
                      const change_options &options);
change_result remove_keys(const std::vector<std::string> &paths, change_options options);

}  // namespace keyview::admin
