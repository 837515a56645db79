// A decoder of UTF-8 that trusts nothing, and what stands on it.
#include "ctl/text.h"

#include <cstdint>
#include <cstdio>

namespace keyview::ctl {

namespace {
struct character {
    size_t length;  // 0 if the text begins with no character
    uint32_t code;
};
}  // namespace

// The character that a text, not empty, begins with. Overlong forms, surrogates and what lies
// beyond U+10FFFF are none.
static character first_character(std::string_view text) {
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

bool valid_utf8(std::string_view text) {
    while (!text.empty()) {
        size_t length = first_character(text).length;
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

// Beside control characters: what turns the direction of writing, separates lines or is not seen.
static constexpr struct {
    uint32_t first, last;
} HARMFUL[] = {{0x7f, 0x9f},     {0x61c, 0x61c},   {0x200b, 0x200b}, {0x200e, 0x200f},
               {0x2028, 0x202e}, {0x2060, 0x206f}, {0xfeff, 0xfeff}, {0xe0000, 0xe007f}};

static bool harmful(uint32_t code) {
    if (code < 0x20) return true;
    for (const auto &range : HARMFUL) {
        if (code >= range.first && code <= range.last) return true;
    }
    return false;
}

static std::string numbered(const char *form, uint32_t number) {
    char text[16];
    (void)snprintf(text, sizeof text, form, number);  // it fits
    return text;
}

std::string escaped(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        character next = first_character(text);
        if (next.length == 0) {
            next.length = 1;
            out += numbered("\\x%02x", static_cast<unsigned char>(text[0]));
        } else if (harmful(next.code)) {
            out += numbered(next.code < 0x80 ? "\\x%02x" : "\\u%04x", next.code);
        } else if (next.code == '\\') {
            out += "\\\\";
        } else {
            out += text.substr(0, next.length);
        }
        text.remove_prefix(next.length);
    }
    return out;
}

std::string json_made_plain(std::string_view json) {
    std::string out;
    while (!json.empty()) {
        character next = first_character(json);
        if (next.length == 0) next = {1, 0xfffd};
        bool plain = next.code == '\n' || !harmful(next.code);
        if (plain) {
            out += json.substr(0, next.length);
        } else if (next.code < 0x10000) {
            out += numbered("\\u%04x", next.code);
        } else {
            out += numbered("\\u%04x", 0xd800 + ((next.code - 0x10000) >> 10));
            out += numbered("\\u%04x", 0xdc00 + ((next.code - 0x10000) & 0x3ff));
        }
        json.remove_prefix(next.length);
    }
    return out;
}

std::string shell_word(std::string_view text) {
    constexpr std::string_view PLAIN =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=@%+,";
    if (!text.empty() && text.find_first_not_of(PLAIN) == text.npos) return std::string(text);
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

}  // namespace keyview::ctl
