// Keys with their values in memory, parents before their children, and what can be told of them:
// what a change set makes of them, and how two of them differ.
#ifndef KEYVIEW_ADMIN_CHANGE_KEY_MAP_H
#define KEYVIEW_ADMIN_CHANGE_KEY_MAP_H

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "admin/admin.h"
#include "host/registry/backend.h"

namespace keyview::admin {

// Elements in the order of their bytes, so that what is below a key follows it at once.
struct path_order {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
};

using key_map = std::map<std::string, std::string, path_order>;

// All that the registry keeps; "DATABASE" is the one top.
constexpr const char *TOP = "DATABASE";

// A key with what is below it, if it is there.
void read_below(host::moment *from, std::string_view path, reach how_far, key_map *out);

// Whether a key is one of the tree's sections or below one.
bool below_a_root(std::string_view path);

// What a store would make of the keys. A put makes missing parents.
void carry_out(const host::change &one, key_map *keys);

std::vector<key_change> differences(const key_map &before, const key_map &after);

}  // namespace keyview::admin

#endif
