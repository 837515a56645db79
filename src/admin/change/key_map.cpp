// See key_map.h.
#include "admin/change/key_map.h"

#include <algorithm>

#include "admin/document/fields.h"
#include "host/registry/path.h"
#include "host/registry/snapshot.h"

namespace keyview::admin {

bool path_order::operator()(std::string_view a, std::string_view b) const {
    auto rank = [](char c) { return c == '.' ? 0U : static_cast<unsigned char>(c) + 1U; };
    return std::lexicographical_compare(
        a.begin(), a.end(), b.begin(), b.end(),
        [&](char one, char other) { return rank(one) < rank(other); });
}

void read_below(host::moment *from, std::string_view path, host::reach how_far, key_map *out) {
    if (how_far == host::reach::key_alone) {
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
    return std::any_of(SECTIONS.begin(), SECTIONS.end(), [&](const list_row &section) {
        return host::path_within(path, section.key);
    });
}

static void remove_below(const std::string &path, key_map *keys) {
    auto at = keys->lower_bound(path);
    while (at != keys->end() && host::path_within(at->first, path))
        at = keys->erase(at);
}

void carry_out(const host::change &one, key_map *keys) {
    if (one.what == host::change::kind::remove) return remove_below(one.path, keys);
    for (std::string_view parent = host::parent_path(one.path); !parent.empty();
         parent = host::parent_path(parent)) {
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

// The first so many elements of a path.
static std::string_view head_of(std::string_view path, size_t elements) {
    size_t end = 0;
    for (size_t n = 0; n < elements && end != path.npos; ++n)
        end = path.find('.', end == 0 ? 0 : end + 1);
    return path.substr(0, end);
}

std::string lock_of(std::string_view path) {
    for (const list_row &section : SECTIONS) {
        if (!host::path_within(path, section.key)) continue;
        bool scoped = section.record->scoped;
        std::string_view record = head_of(path, scoped ? 4 : 3);
        return (scoped && head_of(path, 3) != record ? "LKRT.STG." : "LKRT.") + std::string(record);
    }
    return "LKRT." + std::string(path);
}

}  // namespace keyview::admin
