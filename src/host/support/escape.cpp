// Escaping of text from outside.
#include "host/support/escape.h"

#include <cstdint>

namespace keyview::host {

struct code_point {
    uint32_t value;
    size_t length;  // in bytes; 0 if the bytes are not UTF-8
};

struct code_range {
    uint32_t first;
    uint32_t last;
};

// Characters of more than one byte that are escaped.
static constexpr code_range HARMFUL[] = {
    {0x0080, 0x009F},    // further control characters
    {0x061C, 0x061C},    // Arabic letter mark
    {0x200E, 0x200F},    // left-to-right and right-to-left mark
    {0x2028, 0x202E},    // line and paragraph separator, embeddings and overrides
    {0x2066, 0x2069},    // isolates
    {0xFEFF, 0xFEFF},    // byte order mark
    {0xE0000, 0xE007F},  // tags
};

// Decodes one character of two to four bytes; refuses overlong forms, surrogates and what is beyond
// the last plane.
static code_point decode(std::string_view text) {
    static constexpr uint32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    auto lead = static_cast<unsigned char>(text[0]);
    size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || lead >= 0xF8 || text.size() < length) return {0, 0};
    uint32_t value = lead & (0x7FU >> length);
    for (size_t i = 1; i < length; ++i) {
        auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) return {0, 0};
        value = value << 6 | (next & 0x3FU);
    }
    bool surrogate = value >= 0xD800 && value <= 0xDFFF;
    if (value < SMALLEST[length] || value > 0x10FFFF || surrogate) return {0, 0};
    return {value, length};
}

static bool harmful(uint32_t value) {
    for (const code_range &range : HARMFUL) {
        if (value >= range.first && value <= range.last) return true;
    }
    return false;
}

static void append_hex(std::string *out, std::string_view bytes) {
    static constexpr char DIGITS[] = "0123456789abcdef";
    for (char byte : bytes) {
        auto value = static_cast<unsigned char>(byte);
        *out += "\\x";
        *out += DIGITS[value >> 4];
        *out += DIGITS[value & 15];
    }
}

void append_escaped(std::string *out, std::string_view text) {
    while (!text.empty()) {
        auto byte = static_cast<unsigned char>(text[0]);
        size_t length = 1;
        if (byte == '\\') {
            *out += "\\\\";
        } else if (byte >= 0x20 && byte < 0x7F) {
            *out += text[0];
        } else {
            code_point point = byte < 0x80 ? code_point{byte, 0} : decode(text);
            bool plain = point.length > 0 && !harmful(point.value);
            if (point.length > 0) length = point.length;
            if (plain) {
                out->append(text.substr(0, length));
            } else {
                append_hex(out, text.substr(0, length));
            }
        }
        text.remove_prefix(length);
    }
}

}  // namespace keyview::host
