// Key paths: elements joined by ".", how long they may be, and how far a part of the tree goes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace model {

constexpr size_t MAX_PATH_LENGTH = 2047;
constexpr size_t MAX_VALUE_SIZE = size_t{1} << 20;

// Why no key can have this path; null if one can. An element has one byte or more and no control
// character.
constexpr const char *path_fault(std::string_view path) noexcept {
    if (path.empty()) return "the path is empty";
    if (path.size() > MAX_PATH_LENGTH) return "the path is longer than 2047 bytes";
    constexpr unsigned char ABOVE_DOT = '.' + 1, DELETE = 0x7F;
    size_t element = 0;  // where the present one begins
    for (size_t at = 0; at < path.size(); ++at) {
        auto byte = static_cast<unsigned char>(path[at]);
        if (static_cast<unsigned char>(byte - ABOVE_DOT) < DELETE - ABOVE_DOT) continue;  // most
        if (byte < 0x20 || byte == DELETE) return "the path holds a control character";
        if (byte != '.') continue;
        if (at == element) return "an element of the path is empty";
        element = at + 1;
    }
    return element == path.size() ? "an element of the path is empty" : nullptr;
}

// How far a part of the tree goes below its top.
enum class reach { key_alone, children, all_below };

// Whether path is top or a key below it, as far as the part goes.
constexpr bool path_within(std::string_view path, std::string_view top,
                           reach depth = reach::all_below) noexcept {
    if (path.substr(0, top.size()) != top) return false;
    if (path.size() == top.size()) return true;
    if (path[top.size()] != '.' || depth == reach::key_alone) return false;
    return depth == reach::all_below || path.find('.', top.size() + 1) == path.npos;
}

// How many bytes two paths begin with alike. Paths share long heads: eight bytes at once.
inline size_t common_head(std::string_view a, std::string_view b) noexcept {
    size_t same = 0, both = std::min(a.size(), b.size());
    for (uint64_t one = 0, other = 0; same + sizeof one <= both; same += sizeof one) {
        memcpy(&one, a.data() + same, sizeof one);
        memcpy(&other, b.data() + same, sizeof other);
        if (one != other) break;
    }
    while (same < both && a[same] == b[same])
        ++same;
    return same;
}

// The path of the parent; "" for an element alone.
constexpr std::string_view parent_path(std::string_view path) noexcept {
    size_t end = path.rfind('.');
    return end == path.npos ? std::string_view() : path.substr(0, end);
}

// The element behind the last ".".
constexpr std::string_view last_element(std::string_view path) noexcept {
    return path.substr(path.rfind('.') + 1);  // npos + 1 is 0
}

// The first so many elements of a path, or all of it.
constexpr std::string_view first_elements(std::string_view path, size_t count) noexcept {
    size_t end = 0;
    for (size_t n = 0; n < count && end != path.npos; ++n)
        end = path.find('.', end == 0 ? 0 : end + 1);
    return path.substr(0, end);
}

}  // namespace model

// The kit, the administration and the tool name the model's facts without its name.
namespace keyview {
using namespace model;
}
