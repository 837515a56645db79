// Text in names and values: UTF-8, and the characters that can forge or hide a line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace model {

struct character {
    size_t length;  // in bytes; 0 if the text does not begin with a character
    uint32_t code;
};

// The character that a text, not empty, begins with. Overlong forms, surrogates and what lies
// beyond U+10FFFF are none.
constexpr character first_character(std::string_view text) {
    auto at = [&](size_t n) { return static_cast<unsigned char>(text[n]); };
    unsigned char lead = at(0);
    if (lead < 0x80) return {1, lead};
    size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return {0, 0};
    uint32_t code = lead & (0x7fu >> length);
    for (size_t n = 1; n < length; ++n) {
        if ((at(n) & 0xc0) != 0x80) return {0, 0};
        code = code << 6 | (at(n) & 0x3fu);
    }
    constexpr uint32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    bool surrogate = code >= 0xd800 && code <= 0xdfff;
    if (code < SMALLEST[length] || surrogate || code > 0x10ffff) return {0, 0};
    return {length, code};
}

constexpr bool valid_utf8(std::string_view text) {
    while (!text.empty()) {
        size_t length = first_character(text).length;
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

struct character_range {
    uint32_t first, last;
};

inline constexpr character_range HARMFUL_RANGES[] = {
    {0x0000, 0x001f},    // control characters
    {0x007f, 0x009f},    // further control characters
    {0x061c, 0x061c},    // Arabic letter mark
    {0x200b, 0x200b},    // zero width space
    {0x200e, 0x200f},    // left-to-right and right-to-left mark
    {0x2028, 0x202e},    // line and paragraph separator, embeddings and overrides
    {0x2060, 0x206f},    // invisible operators, isolates
    {0xfeff, 0xfeff},    // byte order mark
    {0xe0000, 0xe007f},  // tags
};

constexpr bool harmful(uint32_t code) {
    for (const character_range &range : HARMFUL_RANGES)
        if (code >= range.first && code <= range.last) return true;
    return false;
}

}  // namespace model

namespace keyview {
using namespace model;
}
