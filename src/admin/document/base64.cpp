// See base64.h.
#include "admin/document/base64.h"

#include <cstdint>

namespace keyview::admin {

static constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string to_base64(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size() / 3 * 4 + 4);
    for (size_t n = 0; n < bytes.size(); n += 3) {
        uint32_t group = 0;
        for (size_t i = 0; i < 3; ++i) {
            auto byte = n + i < bytes.size() ? static_cast<unsigned char>(bytes[n + i]) : 0U;
            group = group << 8 | byte;
        }
        for (size_t i = 0; i < 4; ++i)
            out += n + i <= bytes.size() ? DIGITS[group >> (18 - 6 * i) & 0x3f] : '=';
    }
    return out;
}

bool from_base64(std::string_view text, std::string *bytes) {
    bytes->clear();
    uint32_t group = 0;
    int bits = 0;
    for (char c : text.substr(0, text.find('='))) {
        size_t digit = DIGITS.find(c);
        if (digit == DIGITS.npos) return false;
        group = (group << 6 | static_cast<uint32_t>(digit)) & 0xffffff;
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        *bytes += static_cast<char>(group >> bits & 0xff);
    }
    return to_base64(*bytes) == text;
}

}  // namespace keyview::admin
