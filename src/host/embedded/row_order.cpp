// See row_order.h.
#include "host/embedded/row_order.h"

#include <algorithm>
#include <iterator>

#include "host/embedded/row.h"
#include "model/path.h"

namespace keyview::host {

row_order::row_order(size_t changes) : children_(changes), above_{{NONE, {}, {}}} {
    parents_.reserve(changes);
}

// In tree order each element below a key is greater than those before, so no key comes twice.
uint32_t row_order::find_parent(std::string_view path) {
    auto is_below = [&](std::string_view key) {
        return path.size() > key.size() && path_within(path, key);
    };
    while (above_.size() > 1 && !is_below(above_.back().path))
        above_.pop_back();
    ancestor &nearest = above_.back();
    const size_t start = nearest.path.empty() ? 0 : nearest.path.size() + 1;
    const size_t end = std::min(path.find('.', start), path.size());
    const std::string_view element = path.substr(start, end - start);
    in_tree_order_ = in_tree_order_ && element > nearest.latest;
    nearest.latest = element;
    return end == path.size() ? nearest.change : NONE;
}

void row_order::add(const change_view &next) {
    room_ += row_room(next.path, next.value);
    removes_ = removes_ || next.what == change::kind::remove;
    if (removes_) return;
    const auto number = static_cast<uint32_t>(parents_.size());
    if (above_.back().path == next.path) {  // it is put again
        parents_.push_back(NONE);
    } else {
        const uint32_t parent = find_parent(next.path);
        if (parent != NONE) ++children_[parent];
        parents_.push_back(parent);
        above_.push_back({number, next.path, {}});
    }
    auto depth = static_cast<size_t>(std::count(next.path.begin(), next.path.end(), '.'));
    if (by_depth_.size() <= depth) by_depth_.resize(depth + 1);
    by_depth_[depth].push_back(number);
}

void row_order::sort(const change_source &changes) {
    if (removes_) return;
    auto before = [&](uint32_t a, uint32_t b) {
        return row_before(changes.at(a).path, changes.at(b).path);
    };
    std::vector<uint32_t> merged;
    for (std::vector<uint32_t> &level : by_depth_) {
        if (!std::is_sorted(level.begin(), level.end(), before))
            std::stable_sort(level.begin(), level.end(), before);
        merged.clear();
        merged.reserve(order_.size() + level.size());
        std::merge(order_.begin(), order_.end(), level.begin(), level.end(),
                   std::back_inserter(merged), before);
        order_.swap(merged);
    }
    by_depth_.clear();
}

}  // namespace keyview::host
