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

static bool harmful(uint32_t code) {
    bool control = code < 0x20 || (code >= 0x7f && code < 0xa0);
    bool turns = code == 0x61c || code == 0x200e || code == 0x200f ||
                 (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
    bool separates = code == 0x2028 || code == 0x2029;
    return control || turns || separates;
}

std::string escaped(std::string_view text) {
    std::string out;
    while (!text.empty()) {
        character next = first_character(text);
        char code[16] = "\\\\";
        if (next.length == 0) {
            next.length = 1;
            (void)snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(text[0]));
            out += code;
        } else if (harmful(next.code)) {
            (void)snprintf(code, sizeof code, next.code < 0x80 ? "\\x%02x" : "\\u%04x", next.code);
            out += code;
        } else {
            out += next.code == '\\' ? code : std::string(text.substr(0, next.length));
        }
        text.remove_prefix(next.length);
    }
    return out;
}

std::string base64(std::string_view bytes) {
    constexpr char DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t n = 0; n < bytes.size(); n += 3) {
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) {
            auto byte = n + i < bytes.size() ? static_cast<unsigned char>(bytes[n + i]) : 0u;
            group = group << 8 | byte;
        }
        for (size_t i = 0; i < 4; ++i) {
            bool filled = n + i <= bytes.size();
            out += filled ? DIGITS[group >> (18 - 6 * i) & 0x3f] : '=';
        }
    }
    return out;
}

}  // namespace keyview::ctl
