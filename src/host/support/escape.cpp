// Escaping of text from outside.
#include "host/support/escape.h"

#include "model/text.h"

namespace keyview::host {

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
        model::character next = model::first_character(text);
        std::string_view bytes = text.substr(0, next.length == 0 ? 1 : next.length);
        if (next.length == 0 || model::harmful(next.code)) {
            append_hex(out, bytes);
        } else {
            if (next.code == '\\') *out += '\\';
            out->append(bytes);
        }
        text.remove_prefix(bytes.size());
    }
}

}  // namespace keyview::host
