// What a plan reports: the keys that change and the locks that cover them. Both are views into what
// the plan was made from, and keep it.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "admin/key_list.h"
#include "admin/key_map.h"

namespace keyview::admin {

// What happened, or would happen, to one key: a key_change as views.
struct change_row {
    change_row(std::string_view key, std::optional<std::string_view> was,
               std::optional<std::string_view> will_be)
        : path(key), before(was), after(will_be) {}
    change_row(const key_change &one) : path(one.path), before(one.before), after(one.after) {}

    bool operator==(const change_row &other) const {
        return path == other.path && before == other.before && after == other.after;
    }

    std::string_view path;
    std::optional<std::string_view> before, after;
};

class key_changes {
  public:
    key_changes() : key_changes(std::make_shared<key_list>(), std::make_shared<key_list>()) {}
    key_changes(const std::vector<key_change> &all);

    // Changes from keys of one list to keys of another.
    key_changes(std::shared_ptr<const key_list> before, std::shared_ptr<const key_list> after)
        : before_(std::move(before)), after_(std::move(after)) {}

    // Appends a change by the numbers of the key in both lists, or NONE. The path may be shorter than
    // that of the key after it: then it is a parent that the key has created, without a value.
    void add(size_t before, size_t after, size_t path_size);
    void reserve(size_t changes) { rows_.reserve(changes); }
    void sort();

    bool operator==(const key_changes &other) const;
    size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    change_row operator[](size_t number) const;
    numbered_iterator<key_changes> begin() const { return {this, 0}; }
    numbered_iterator<key_changes> end() const { return {this, size()}; }

    // Without the changes that a function chooses.
    template <typename choice>
    key_changes without(const choice &chosen) const {
        key_changes out(before_, after_);
        for (size_t n = 0; n < size(); ++n)
            if (!chosen((*this)[n])) out.rows_.push_back(rows_[n]);
        return out;
    }

  private:
    struct row {
        uint32_t before, after, path_size;
    };
    change_row of(const row &one) const;

    std::shared_ptr<const key_list> before_, after_;
    std::vector<row> rows_;
};

// Locks by the keys that they cover (model/locks.h). The bytes of the keys belong to others, which
// keep() may hold.
class lock_list {
  public:
    lock_list() = default;
    explicit lock_list(std::string_view path) { add(path); }

    // Adds the lock under which a key is changed.
    void add(std::string_view path);
    void keep(std::shared_ptr<const void> owner) { owners_.push_back(std::move(owner)); }

    // Sorts by the names, each once.
    void sort();
    // Of sorted lists.
    bool includes(const lock_list &other) const;

    size_t size() const { return keys_.size(); }
    std::string operator[](size_t number) const;  // the name
    numbered_iterator<lock_list> begin() const { return {this, 0}; }
    numbered_iterator<lock_list> end() const { return {this, size()}; }

  private:
    std::vector<std::string_view> keys_;
    std::vector<std::shared_ptr<const void>> owners_;
};

}  // namespace keyview::admin
