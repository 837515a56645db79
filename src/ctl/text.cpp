// See text.h.
#include "ctl/text.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <filesystem>

#include "admin/document/base64.h"
#include "model/text.h"

namespace keyview::ctl {

static std::string numbered(const char *form, uint32_t number) {
    char text[16];
    (void)snprintf(text, sizeof text, form, number);  // it fits
    return text;
}

// Characters of ASCII that stand for themselves.
static constexpr auto UNESCAPED = [] {
    std::array<bool, 256> plain{};
    for (size_t code = 0x20; code < 0x7f; ++code)
        plain[code] = code != '\\';
    return plain;
}();

void append_escaped(std::string_view text, std::string *out) {
    while (!text.empty()) {
        size_t plain = 0;  // most of the characters, at once
        while (plain < text.size() && UNESCAPED[static_cast<unsigned char>(text[plain])])
            ++plain;
        out->append(text.data(), plain);
        text.remove_prefix(plain);
        if (text.empty()) break;
        character next = first_character(text);
        if (next.length == 0) {
            next.length = 1;
            *out += numbered("\\x%02x", static_cast<unsigned char>(text[0]));
        } else if (harmful(next.code)) {
            *out += numbered(next.code < 0x80 ? "\\x%02x" : "\\u%04x", next.code);
        } else if (next.code == '\\') {
            *out += "\\\\";
        } else {
            *out += text.substr(0, next.length);
        }
        text.remove_prefix(next.length);
    }
}

std::string escaped(std::string_view text) {
    std::string out;
    append_escaped(text, &out);
    return out;
}

std::string screen_text(std::string_view escaped_text, bool ascii) {
    std::string out;
    for (std::string_view rest = escaped_text; !rest.empty();) {
        const character next = first_character(rest);
        const bool shown =
            next.code < 0x80 || (!ascii && wcwidth(static_cast<wchar_t>(next.code)) >= 0);
        out += shown ? std::string(rest.substr(0, next.length)) : numbered("\\u%04x", next.code);
        rest.remove_prefix(next.length);
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

std::string absolute_url(const std::string &url) {
    constexpr std::string_view HEAD = "lmdb:";
    if (url.rfind(HEAD, 0) != 0 || url.size() == HEAD.size()) return url;
    return std::string(HEAD) + std::filesystem::absolute(url.substr(HEAD.size())).string();
}

std::string text_or_dash(std::string_view text) {
    return std::string(text.data() == nullptr ? "-" : text);
}

std::string shown_url(const std::string &url) {
    return url.find('@') == url.npos ? url : url.substr(0, url.find(':')) + ":...";
}

std::string shell_word(std::string_view text) {
    constexpr std::string_view PLAIN =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-./:=@%+,";
    if (!text.empty() && text.find_first_not_of(PLAIN) == text.npos) return std::string(text);
    if (escaped(text) != text && text.back() != '\n')  // a line feed at the end would be lost
        return "\"$(echo " + admin::to_base64(text) + " | base64 -d)\"";
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\"'\"'") : std::string(1, c);
    return out + "'";
}

bool is_revision(std::string_view text) {
    constexpr size_t MOST_DIGITS = 19;
    return !text.empty() && text.size() <= MOST_DIGITS &&
           text.find_first_not_of("0123456789") == text.npos;
}

}  // namespace keyview::ctl
