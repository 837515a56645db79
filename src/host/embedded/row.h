// How a key of the tree lies in LMDB: its place in the order, and its row.
//
// Place. The elements of the path with 0x01 between them and 0x00 before the last one, compared by
// memcmp: a.b.c is "a 01 b 00 c". So the children of a key are one range, and so is all that is
// below it, its own list first. No element holds a byte below 0x20.
//
// A place has as many bytes as its path. LMDB takes 511. A longer place is cut: its first 494
// bytes, 0x02, and the 128-bit XXH3 of the whole place; the row then holds the path, which is
// compared whenever the row is read. Such rows lie
//   - within the range of an upper key whose range prefix has at most 494 bytes, for they keep that
//     prefix, though not in order among each other;
//   - for a longer prefix, in one range behind the common 494 bytes and 0x02, together with other
//     keys: the path in the row tells which belong.
// place_ranges() gives the ranges to read; who reads them filters and sorts what is cut.
//
// Row, in the machine's byte order as all of an LMDB file:
//
//     1 byte   format, 1
//     1        0
//     2        length of the path, 0 unless the place is cut
//     4        number of children
//              the path, then the value
//     8        checksum: XXH3 of the LMDB key and of all of the row before; the key's length is
//              mixed in, so that no byte can pass from one to the other
#ifndef KEYVIEW_HOST_EMBEDDED_ROW_H
#define KEYVIEW_HOST_EMBEDDED_ROW_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/store.h"
#include "model/path.h"

namespace keyview::host {

// The LMDB key of a path that a key can have, on the stack.
class place_of {
  public:
    explicit place_of(std::string_view path);

    std::string_view view() const { return {text_, size_}; }

  private:
    size_t size_;
    char text_[MAX_PATH_LENGTH];
};

// Whether an LMDB key is a cut place.
bool place_is_cut(std::string_view place) noexcept;

// The path of a place that is not cut.
void append_path(std::string *out, std::string_view place);

// Whether a comes before b in the order of whole places.
bool path_before(std::string_view a, std::string_view b);

struct place_range {
    std::string from;  // first place
    std::string to;    // behind the last
};

// The ranges that hold all rows of a key's children, or of all keys below it.
std::vector<place_range> place_ranges(std::string_view path, reach which);

// The range of all cut places with the head of one.
place_range cut_range(std::string_view place);

struct row {
    std::string_view path;  // "" unless the place is cut
    uint32_t children;
    std::string_view value;
};

// Takes a row apart; false if its bytes are not those that were written at this place. It is quick
// if the row follows its place in memory, as within a page of LMDB.
[[nodiscard]] bool read_row(std::string_view place, std::string_view bytes, row *out) noexcept;

// The path of a row, sound or damaged. Of a cut place it is the stored one if that has this place;
// else the head of the place with "..." behind it, which is the path of no key.
std::string path_of_row(std::string_view place, std::string_view bytes);

// Whether a row of place_ranges(path, which) is that of a key below path. A damaged row with a cut
// place and a damaged path counts as one if its place alone shows it.
bool row_is_below(std::string_view place, std::string_view bytes, std::string_view path,
                  reach which);

// Whether a row is sound but for its place.
bool row_is_misplaced(std::string_view place, std::string_view bytes);

// The bytes of a row. path is that of the key, cut or not.
std::string write_row(std::string_view place, std::string_view path, uint32_t children,
                      std::string_view value);

}  // namespace keyview::host

#endif
