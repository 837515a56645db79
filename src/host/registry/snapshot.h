// A private copy of a part of the tree, as of one moment: what the holder of a lock reads.
//
// Flat: one block of bytes with all names and values, and the keys sorted by their place below the
// top: each element of the rest of the path behind 0x01, the last one behind 0x00, by memcmp. So
// the children of a key stand side by side, and a list is followed by what the list holds.
#ifndef KEYVIEW_HOST_REGISTRY_SNAPSHOT_H
#define KEYVIEW_HOST_REGISTRY_SNAPSHOT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/path.h"
#include "host/registry/store.h"

namespace keyview::host {

class snapshot {
  public:
    static constexpr uint32_t NONE = UINT32_MAX;

    // Reads what a lock covers; a part of the tree that does not exist gives an empty snapshot.
    snapshot(store *keys, const lock_cover &cover);

    // Whether the snapshot knows about the key, be it there or not; and about its children.
    bool tells(std::string_view path) const;
    bool tells_children(uint32_t key) const { return !cover_.children_only || key == 0; }

    // The index of a key that the snapshot tells about; NONE if it is not there.
    uint32_t find(std::string_view path);

    std::string path(uint32_t key) const;
    std::string_view value(uint32_t key) const { return bytes(keys_[key].value); }
    void set_value(uint32_t key, std::string_view value) { keys_[key].value = keep(value); }

    // The children of a key are first .. first + count - 1; the name is a key's last element.
    struct range {
        uint32_t first;
        uint32_t count;
    };
    range children(uint32_t key) const;
    std::string_view name(uint32_t key) const;

  private:
    struct span {
        uint32_t at;
        uint32_t size;
    };
    struct entry {
        span place;
        span value;
    };

    void add(std::string_view path, std::string_view value);
    void load(store *keys);
    span keep(std::string_view text);
    std::string_view bytes(span s) const { return std::string_view(bytes_).substr(s.at, s.size); }
    uint32_t first_from(std::string_view place) const;

    lock_cover cover_;
    std::string bytes_;
    std::vector<entry> keys_;
    uint32_t next_ = 0;  // behind the key found last: readers mostly go on from there
};

}  // namespace keyview::host

#endif
