// See changes.h.
#include "admin/change/changes.h"

#include <algorithm>

#include "model/locks.h"

namespace keyview::admin {

// ---- Keys ---------------------------------------------------------------------------------------

key_changes::key_changes(const std::vector<key_change> &all) {
    auto before = std::make_shared<key_list>(), after = std::make_shared<key_list>();
    for (const key_change &one : all) {
        add(one.before ? before->size() : key_list::NONE,
            one.after ? after->size() : key_list::NONE, one.path.size());
        if (one.before) (void)before->add(one.path, one.before);
        if (one.after) (void)after->add(one.path, one.after);
    }
    before_ = std::move(before);
    after_ = std::move(after);
}

void key_changes::add(size_t before, size_t after, size_t path_size) {
    rows_.push_back({static_cast<uint32_t>(before), static_cast<uint32_t>(after),
                     static_cast<uint32_t>(path_size)});
}

change_row key_changes::of(const row &one) const {
    change_row out({}, std::nullopt, std::nullopt);
    if (one.before != key_list::NONE) {
        out.path = before_->path(one.before);
        out.before = (*before_)[one.before].value;
    }
    if (one.after != key_list::NONE) {
        const std::string_view whole = after_->path(one.after);
        out.path = whole.substr(0, one.path_size);
        out.after = one.path_size < whole.size() ? "" : (*after_)[one.after].value;
    }
    return out;
}

change_row key_changes::operator[](size_t number) const {
    return of(rows_[number]);
}

bool key_changes::operator==(const key_changes &other) const {
    bool same = size() == other.size();
    for (size_t n = 0; same && n < size(); ++n)
        same = (*this)[n] == other[n];
    return same;
}

void key_changes::sort() {
    auto earlier = [&](const row &a, const row &b) { return path_order()(of(a).path, of(b).path); };
    if (!std::is_sorted(rows_.begin(), rows_.end(), earlier))
        std::sort(rows_.begin(), rows_.end(), earlier);
}

// ---- Locks --------------------------------------------------------------------------------------

// The order of the names.
static bool lock_before(std::string_view a, std::string_view b) {
    if (is_locked_entry(a) == is_locked_entry(b)) return a < b;
    return lock_of(a) < lock_of(b);
}

void lock_list::add(std::string_view path) {
    std::string_view key = locked_key_of(path);
    if (keys_.empty() || keys_.back() != key) keys_.push_back(key);
}

void lock_list::sort() {
    sort_runs(keys_.begin(), keys_.end(), lock_before);
    keys_.erase(std::unique(keys_.begin(), keys_.end()), keys_.end());
    keys_.shrink_to_fit();
}

bool lock_list::includes(const lock_list &other) const {
    return std::includes(keys_.begin(), keys_.end(), other.keys_.begin(), other.keys_.end(),
                         lock_before);
}

std::string lock_list::operator[](size_t number) const {
    return lock_of(keys_[number]);
}

}  // namespace keyview::admin
