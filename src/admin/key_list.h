// Keys with their values in little memory, for what reads or changes all of a tree: bytes in blocks,
// and a short row for each key.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "admin/key_map.h"

namespace keyview::admin {

// Bytes that stay at their address as long as their store exists, moved or not.
class byte_store {
  public:
    // Stores two texts one behind the other.
    const char *store(std::string_view first, std::string_view second = {});

  private:
    std::vector<std::unique_ptr<char[]>> blocks_;
    char *next_ = nullptr;
    size_t room_ = 0;
};

// Sorts what is usually one sorted list behind another, stably.
template <typename iterator, typename order>
void sort_runs(iterator begin, iterator end, const order &before) {
    iterator second = std::is_sorted_until(begin, end, before);
    if (second == end) return;
    if (!std::is_sorted(second, end, before)) std::stable_sort(second, end, before);
    std::inplace_merge(begin, second, end, before);
}

// Random access by number for a class that has size() and operator[].
template <typename list>
class numbered_iterator {
  public:
    numbered_iterator(const list *all, size_t number) : all_(all), number_(number) {}
    auto operator*() const { return (*all_)[number_]; }
    numbered_iterator &operator++() { return ++number_, *this; }
    bool operator!=(const numbered_iterator &other) const { return number_ != other.number_; }

  private:
    const list *all_;
    size_t number_;
};

// A key with its value, or its removal: views that last as long as the list they come from.
struct key_row {
    std::string_view path;
    std::optional<std::string_view> value;
};

class key_list {
  public:
    static constexpr size_t NONE = UINT32_MAX;

    // Appends a key; returns its stored path.
    std::string_view add(std::string_view path, std::optional<std::string_view> value);

    // Sorts by path_order; keys with one path keep their order.
    void sort();
    // The same, and keeps the first one of those.
    void sort_unique();

    size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    key_row operator[](size_t number) const;
    std::string_view path(size_t number) const {
        return {rows_[number].bytes, rows_[number].path_size};
    }
    numbered_iterator<key_list> begin() const { return {this, 0}; }
    numbered_iterator<key_list> end() const { return {this, size()}; }

    // Of a sorted list: the number of the first key that is not before a path, and of the key with
    // the path, or NONE.
    size_t lower_bound(std::string_view path) const;
    size_t find(std::string_view path) const;

  private:
    static constexpr uint32_t REMOVED = UINT32_MAX;
    struct row {
        const char *bytes;  // the path, then the value
        uint32_t path_size, value_size;
    };

    byte_store bytes_;
    std::vector<row> rows_;
};

}  // namespace keyview::admin
