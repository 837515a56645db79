// Rules for key paths, and what part of the tree the name of a lock covers.
#ifndef KEYVIEW_HOST_REGISTRY_PATH_H
#define KEYVIEW_HOST_REGISTRY_PATH_H

#include <cstddef>
#include <string_view>

#include "host/support/export.h"

namespace keyview::host {

constexpr size_t MAX_PATH_LENGTH = 2047;
constexpr size_t MAX_VALUE_SIZE = size_t{1} << 20;

// Why no key can have this path; null if one can. An element has one byte or more and no control
// character.
KEYVIEW_HOST_API const char *path_fault(std::string_view path) noexcept;

// How far a part of the tree goes below its top.
enum class reach { key_alone, children, all_below };

// Whether path is top or a key below it, as far as the part goes.
KEYVIEW_HOST_API bool path_within(std::string_view path, std::string_view top,
                                  reach depth = reach::all_below) noexcept;

// The path of the parent; "" for an element alone.
KEYVIEW_HOST_API std::string_view parent_path(std::string_view path) noexcept;

// The part of the tree that a lock protects, for what its holder sees.
struct lock_cover {
    std::string_view path;  // a part of the name, "" if it covers nothing
    reach depth = reach::all_below;
};

// The cover of a lock is its name without the head "LKRT." or "LKRT.STG.". The lock of all
// databases protects only their list.
KEYVIEW_HOST_API lock_cover cover_of(std::string_view lock_name);

}  // namespace keyview::host

#endif
