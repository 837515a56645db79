// See key_map.h.
#include "admin/key_map.h"

#include <algorithm>

#include "model/path.h"
#include "model/records.h"

namespace keyview::admin {

bool path_order::operator()(std::string_view a, std::string_view b) const {
    const size_t same = common_head(a, b);
    if (same == std::min(a.size(), b.size())) return a.size() < b.size();
    auto rank = [](char c) { return c == '.' ? 0U : static_cast<unsigned char>(c) + 1U; };
    return rank(a[same]) < rank(b[same]);
}

bool below_a_root(std::string_view path) {
    return std::any_of(SECTIONS.begin(), SECTIONS.end(),
                       [&](const list_row &section) { return path_within(path, section.key); });
}

void remove_below(const std::string &path, key_map *keys) {
    auto at = keys->lower_bound(path);
    while (at != keys->end() && path_within(at->first, path))
        at = keys->erase(at);
}

std::vector<key_change> differences(const key_map &before, const key_map &after) {
    std::vector<key_change> out;
    path_order first;
    auto old = before.begin();
    auto fresh = after.begin();
    while (old != before.end() || fresh != after.end()) {
        if (fresh == after.end() || (old != before.end() && first(old->first, fresh->first))) {
            out.push_back({old->first, old->second, std::nullopt});
            ++old;
        } else if (old == before.end() || first(fresh->first, old->first)) {
            out.push_back({fresh->first, std::nullopt, fresh->second});
            ++fresh;
        } else {
            if (old->second != fresh->second)
                out.push_back({old->first, old->second, fresh->second});
            ++old;
            ++fresh;
        }
    }
    return out;
}

}  // namespace keyview::admin
