// How a key of the tree is stored in LMDB: its row key and its row.
//
// Row key. The elements of the path with 0x01 between them and 0x00 before the last one, compared
// by memcmp: a.b.c is "a 01 b 00 c". So the children of a key are one range, and so is all that is
// below it, its own list first. No element has a byte below 0x20.
//
// A row key is as long as its path. LMDB takes 511 bytes. A longer one is hashed: its first 494
// bytes, 0x02, and the 128-bit XXH3 of all its bytes; the row then holds the path, which is
// compared whenever the row is read. Such rows are
//   - within the range of an upper key whose range prefix has at most 494 bytes, for they keep that
//     prefix, though not in order among each other;
//   - for a longer prefix, in one range behind the common 494 bytes and 0x02, together with other
//     keys: the path in the row decides.
// key_ranges() returns the ranges to read; the reader filters and sorts the hashed ones.
//
// Row, in the machine's byte order as all of an LMDB file:
//
//     1 byte   format, 1
//     1        0
//     2        length of the path, 0 unless the row key is hashed
//     4        number of children
//              the path, then the value
//     8        checksum: XXH3 of the row key and of all of the row before; the key's length is
//              mixed in, so that no byte can pass from one to the other
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/store.h"
#include "model/path.h"

namespace keyview::host {

// The row key of a path that a key can have, on the stack.
class row_key {
  public:
    explicit row_key(std::string_view path);

    std::string_view view() const { return {text_, size_}; }

  private:
    size_t size_;
    char text_[MAX_PATH_LENGTH];
};

bool key_is_hashed(std::string_view key) noexcept;

// Whether a comes before b in the order of row keys before hashing.
bool path_before(std::string_view a, std::string_view b);

struct key_range {
    std::string from;
    std::string to;  // excluded
};

// The ranges that hold all rows of a key's children, or of all keys below it.
std::vector<key_range> key_ranges(std::string_view path, reach which);

// The range of all hashed row keys with the head of one.
key_range hashed_range(std::string_view key);

struct row {
    std::string_view path;  // "" unless the row key is hashed
    uint32_t children;
    std::string_view value;
};

// Splits a row; false if its bytes are not those that were written at this key. It is fast if the
// row follows its key in memory, as within a page of LMDB.
[[nodiscard]] bool read_row(std::string_view key, std::string_view bytes, row *out) noexcept;

// The path of a row, sound or damaged. For a hashed row key it is the stored path if that has this
// row key; else the head with "..." behind it, which is the path of no key.
std::string path_of_row(std::string_view key, std::string_view bytes);

// Whether a row of key_ranges(path, which) is that of a key below path. A damaged row with a hashed
// row key and a damaged path is one if its row key alone shows it.
bool row_is_below(std::string_view key, std::string_view bytes, std::string_view path, reach which);

// Whether a row is sound but for its row key.
bool row_is_misplaced(std::string_view key, std::string_view bytes);

// Whether the row of one path is before that of another; for paths whose row keys are not hashed.
bool row_before(std::string_view a, std::string_view b) noexcept;

// About as many bytes of LMDB's pages as the row of a key takes.
constexpr size_t row_room(std::string_view path, std::string_view value) noexcept {
    constexpr size_t HEADS = 34;  // LMDB's of a row and ours, with its checksum
    return path.size() + value.size() + HEADS;
}

// The bytes of a row, in a buffer that holds its key before them. path is that of the key, hashed or
// not.
std::string_view write_row(std::string_view key, std::string_view path, uint32_t children,
                           std::string_view value, std::string *buffer);

}  // namespace keyview::host
