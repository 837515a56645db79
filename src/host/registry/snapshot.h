// A private copy of a key and of the keys below it, as of one moment.
//
// Flat: one block of bytes with all paths and values, and a row for each key. The children of a key
// are adjacent rows, ordered by name. The two distances between the keys found last predict the next
// one, because a reader reads the same fields of each entry of a list.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "model/path.h"

namespace keyview::host {

// A block of bytes that only grows. A short text may be read in one piece: READABLE bytes are there from
// any place within.
class byte_block {
  public:
    static constexpr size_t READABLE = 16;

    size_t size() const { return size_; }
    size_t capacity() const { return capacity_; }
    const char *at(size_t offset) const { return bytes_.get() + offset; }

    // Appends that many bytes, to be filled by the caller before the next call.
    char *add(size_t more) {
        if (more > capacity_ - size_) grow(more);
        size_ += more;
        return bytes_.get() + size_ - more;
    }

    char *at(size_t offset) { return bytes_.get() + offset; }
    void clear() { size_ = 0; }
    void reserve(size_t capacity);  // no less than its size

  private:
    void grow(size_t more);

    std::unique_ptr<char[]> bytes_;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

// Whether a string is the one with this text of size bytes and a zero byte behind it. All of its bytes
// are compared at once: strcmp, which looks for both ends, takes twice as long. Where the string is
// shorter, bytes behind its end are read; they are on a page that it is on, or else strcmp decides.
inline bool same_string(const char *string, const char *text, [[maybe_unused]] size_t size) {
#ifndef KEYVIEW_SANITIZED
    constexpr uintptr_t PAGE = 4096;  // or a multiple of it
    if (reinterpret_cast<uintptr_t>(string) % PAGE + size < PAGE) {
        return memcmp(string, text, size + 1) == 0;
    }
#endif
    return strcmp(string, text) == 0;
}

class snapshot {
  public:
    static constexpr uint32_t NONE = UINT32_MAX;
    static constexpr uint32_t TOP = 0;

    // A key: offsets in the bytes of the copy, and numbers of keys.
    struct row {
        uint32_t path_at;
        uint16_t path_size;
        uint16_t name_at;  // within the path
        uint32_t value_at;
        uint32_t value_size;
        uint32_t parent;  // NONE for the top
        uint32_t first;   // of its children
        uint32_t count;
    };

    snapshot(std::string_view top, reach depth);

    // ---- Filling ----
    // The top first. Then the lists of all keys that have children, a key's own list before those
    // of its children. children is always how many children a key has in the registry.
    //
    // A copy that is filled again keeps the rows up to the first one that is another key or has
    // another number of children, and takes the values.

    void add_top(std::string_view value, uint32_t children);

    // Begins a list. key is the path of the key that it belongs to, with a separator of the
    // store's; it is referenced until the copy is complete. False if another list must come first.
    [[nodiscard]] bool begin_list(std::string_view key, char separator);

    // Adds a key to the list; false if its name is not greater than the one before.
    [[nodiscard]] bool add(std::string_view name, std::string_view value, uint32_t children);

    // Ends the filling; false if a list is not complete.
    [[nodiscard]] bool complete() {
        return next_key() == NONE && list_of_ == NONE && filled_ == size();
    }

    void clear();

    // Changes whenever a row becomes that of another key.
    uint64_t shape() const { return shape_; }

    bool stale = false;  // of another moment than the view that has it

    // ---- Reading ----

    // Whether the copy covers a key, existing or not; and its children.
    bool covers(std::string_view path) const { return path_within(path, top_, depth_); }
    bool covers_children(uint32_t key) const {
        return depth_ == reach::all_below || (depth_ == reach::children && key == TOP);
    }

    reach depth() const { return depth_; }
    std::string_view top() const { return top_; }

    // The memory that the copy occupies.
    size_t bytes() const { return bytes_.capacity() + keys_.capacity() * sizeof(row); }

    // Finds a covered key; NONE if it does not exist.
    uint32_t find(std::string_view path);

    // Tests the predicted keys alone; NONE if they have other paths.
    uint32_t find_predicted(const char *path) {
        for (uint32_t step : {step_, step_before_}) {
            uint32_t next = latest_ + step;
            if (next < size() && has_path(at(next), path)) return found(next);
        }
        return NONE;
    }

    uint32_t size() const { return static_cast<uint32_t>(keys_.size()); }

    // Where a key is, until the copy is filled again with another shape().
    const row *at(uint32_t key) const { return &keys_[key]; }
    uint32_t number(const row *key) const { return static_cast<uint32_t>(key - keys_.data()); }

    std::string_view path(const row *key) const { return {path_text(key), key->path_size}; }
    // With a zero byte behind it.
    const char *path_text(const row *key) const { return bytes_.at(key->path_at); }
    bool has_path(const row *key, const char *path) const {
        return same_string(path, path_text(key), key->path_size);
    }
    std::string_view name(const row *key) const {
        return {path_text(key) + key->name_at, size_t{key->path_size} - key->name_at};
    }
    std::string_view value(const row *key) const {
        return {bytes_.at(key->value_at), key->value_size};
    }
    std::string_view path(uint32_t key) const { return path(at(key)); }
    std::string_view name(uint32_t key) const { return name(at(key)); }
    std::string_view value(uint32_t key) const { return value(at(key)); }
    void set_value(uint32_t key, std::string_view value);

    // The children of a key are first .. first + count - 1.
    struct range {
        uint32_t first;
        uint32_t count;
    };
    static range children(const row *key) { return {key->first, key->count}; }

  private:
    // Keys of one list whose own lists are not filled yet.
    struct open_range {
        uint32_t next;
        uint32_t end;
        std::string_view list;
    };

    // Whether the next row of a filling is the one that is there; takes its value then.
    bool same_row(std::string_view name, std::string_view value, uint32_t children);

    void end_rows(uint32_t count);
    size_t used() const;
    char *room(size_t more);
    uint32_t next_key();
    void put_row(std::string_view name, std::string_view value, uint32_t children);
    uint32_t child(uint32_t parent, std::string_view name) const;
    uint32_t found(uint32_t key) {
        step_before_ = step_;
        step_ = key - latest_;
        latest_ = key;
        return key;
    }

    reach depth_;
    std::string top_;
    byte_block bytes_;
    std::vector<row> keys_;

    // Between the keys that were found last; differences modulo 2^32.
    uint32_t latest_ = TOP;
    uint32_t step_ = 0;
    uint32_t step_before_ = 1;

    // While it is filled.
    uint32_t filled_ = 0;  // rows of this filling
    uint64_t shape_ = 0;
    std::vector<open_range> to_come_;
    std::string_view list_;
    uint32_t list_of_ = NONE;
};

}  // namespace keyview::host
