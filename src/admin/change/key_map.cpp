// See key_map.h.
#include "admin/change/key_map.h"

#include <algorithm>

#include "admin/document/fields.h"
#include "host/registry/snapshot.h"
#include "model/path.h"

namespace keyview::admin {

bool path_order::operator()(std::string_view a, std::string_view b) const {
    auto rank = [](char c) { return c == '.' ? 0U : static_cast<unsigned char>(c) + 1U; };
    return std::lexicographical_compare(
        a.begin(), a.end(), b.begin(), b.end(),
        [&](char one, char other) { return rank(one) < rank(other); });
}

void read_below(host::moment *from, std::string_view path, reach how_far, key_map *out) {
    if (how_far == reach::key_alone) {
        std::string value;
        if (from->read(path, &value)) (*out)[std::string(path)] = std::move(value);
        return;
    }
    host::snapshot copy(path, how_far);
    if (!from->copy(path, how_far, &copy)) return;
    for (uint32_t key = 0; key < copy.size(); ++key)
        out->emplace(copy.path(key), copy.value(key));
}

bool below_a_root(std::string_view path) {
    return std::any_of(SECTIONS.begin(), SECTIONS.end(),
                       [&](const list_row &section) { return path_within(path, section.key); });
}

static void remove_below(const std::string &path, key_map *keys) {
    auto at = keys->lower_bound(path);
    while (at != keys->end() && path_within(at->first, path))
        at = keys->erase(at);
}

void carry_out(const host::change &one, key_map *keys) {
    if (one.what == host::change::kind::remove) return remove_below(one.path, keys);
    for (std::string_view parent = parent_path(one.path); !parent.empty();
         parent = parent_path(parent)) {
        keys->emplace(parent, "");
    }
    (*keys)[one.path] = one.value;
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
