// Keys with their values in memory, parents before their children, and how two such maps differ.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace keyview::admin {

// Elements in the order of their bytes, so that what is below a key follows it at once.
struct path_order {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
};

using key_map = std::map<std::string, std::string, path_order>;

// Removes a key with all that is below it.
void remove_below(const std::string &path, key_map *keys);

// What happened, or would happen, to one key; no value means that there is no key.
struct key_change {
    std::string path;
    std::optional<std::string> before, after;
};

// How two maps differ, in the order of the paths.
std::vector<key_change> differences(const key_map &before, const key_map &after);

// Whether a key is a root of the tree's sections or below one.
bool below_a_root(std::string_view path);

}  // namespace keyview::admin
