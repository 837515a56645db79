// See key_list.h.
#include "admin/key_list.h"

#include <algorithm>
#include <cstring>

namespace keyview::admin {

const char *byte_store::store(std::string_view first, std::string_view second) {
    static constexpr size_t BLOCK = size_t{64} << 10;
    size_t size = first.size() + second.size();
    if (size > room_) {
        size_t fresh = std::max(size, BLOCK);
        blocks_.emplace_back(new char[fresh]);
        next_ = blocks_.back().get();
        room_ = fresh;
    }
    char *start = next_;
    std::copy(first.begin(), first.end(), start);
    std::copy(second.begin(), second.end(), start + first.size());
    next_ += size;
    room_ -= size;
    return start;
}

std::string_view key_list::add(std::string_view path, std::optional<std::string_view> value) {
    const char *bytes = bytes_.store(path, value.value_or(std::string_view()));
    rows_.push_back({bytes, static_cast<uint32_t>(path.size()),
                     value ? static_cast<uint32_t>(value->size()) : REMOVED});
    return {bytes, path.size()};
}

key_row key_list::operator[](size_t number) const {
    const row &one = rows_[number];
    key_row out = {{one.bytes, one.path_size}, std::nullopt};
    if (one.value_size != REMOVED)
        out.value = std::string_view(one.bytes + one.path_size, one.value_size);
    return out;
}

void key_list::sort() {
    auto before = [](const row &a, const row &b) {
        return path_order()({a.bytes, a.path_size}, {b.bytes, b.path_size});
    };
    sort_runs(rows_.begin(), rows_.end(), before);
    rows_.shrink_to_fit();
}

void key_list::sort_unique() {
    sort();
    auto same = [](const row &a, const row &b) {
        return std::string_view(a.bytes, a.path_size) == std::string_view(b.bytes, b.path_size);
    };
    rows_.erase(std::unique(rows_.begin(), rows_.end(), same), rows_.end());
}

size_t key_list::lower_bound(std::string_view path) const {
    auto at =
        std::lower_bound(rows_.begin(), rows_.end(), path, [](const row &one, std::string_view p) {
            return path_order()({one.bytes, one.path_size}, p);
        });
    return static_cast<size_t>(at - rows_.begin());
}

size_t key_list::find(std::string_view path) const {
    size_t at = lower_bound(path);
    return at < size() && this->path(at) == path ? at : NONE;
}

}  // namespace keyview::admin
