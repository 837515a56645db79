// Folding, comparing and replacing text.
#include <cstring>
#include <string>

#include "hosttest/host.h"
#include "hosttest/rules.h"

namespace keyview::hosttest {

static char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

static char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
}

// All bytes but zero.
static std::string all_bytes() {
    std::string out;
    for (int byte = 1; byte < 256; ++byte)
        out += static_cast<char>(byte);
    return out;
}

static void require_fold(decltype(&txtmlo) fold, char (*expected)(char)) {
    const std::string source = all_bytes();
    for (size_t length : {size_t(0), size_t(1), size_t(90), source.size()}) {
        std::string target(length + 1, '\0');
        target += "##";
        fold(target.data(), source.data(), length);
        for (size_t n = 0; n < length; ++n) {
            require(target[n] == expected(source[n]),
                    "byte " + std::to_string(n + 1) + " becomes " +
                        std::to_string(static_cast<unsigned char>(target[n])));
        }
        require(target.substr(length + 1) == "##", "more than n + 1 bytes are written");
        require(target[length] == '\0', "the byte behind the text is not zero");
    }
}

static void fold_to_lower() {
    require_fold(host.txtmlo, lower);
}

static void fold_to_upper() {
    require_fold(host.txtmup, upper);
}

static void lower_copy() {
    char target[300];
    memset(target, '#', sizeof target);
    const std::string source = all_bytes();
    host.txtlo(target, source.c_str());
    for (size_t n = 0; n <= source.size(); ++n)
        require(target[n] == lower(source.c_str()[n]), "the copy differs at " + std::to_string(n));
    require(target[source.size() + 1] == '#', "more than the text and its zero byte is written");
}

static void compare() {
    struct {
        const char *a, *b;
        bool equal;
    } const ROWS[] = {
        {"", "", true},
        {"TRUE", "true", true},
        {"tRuE", "TrUe", true},
        {"TRUE", "TRU", false},
        {"TRU", "TRUE", false},
        {"", "x", false},
        {"[", "{", false},
        {"@", "`", false},
        {"\xc3\x89", "\xc3\xa9", false},
        {"a.b*c", "A.B*C", true},
        {"PRIMARY", "primarz", false},
    };
    for (const auto &row : ROWS) {
        require((host.txtclo(row.a, row.b) == 0) == row.equal,
                "\"" + std::string(row.a) + "\" and \"" + row.b + "\" are " +
                    (row.equal ? "reported to differ" : "reported as equal"));
    }
}

static void replace() {
    struct {
        const char *text, *from, *to, *result;
    } const ROWS[] = {
        {"checkout.shop.example", ".", "*", "checkout*shop*example"},
        {"..", ".", "*", "**"},
        {"plain", ".", "*", "plain"},
        {"", ".", "*", ""},
        {"a.b.", ".", "::", "a::b::"},
        {"a::b", "::", ".", "a.b"},
    };
    for (const auto &row : ROWS) {
        char text[64];
        memset(text, '#', sizeof text);
        memcpy(text, row.text, strlen(row.text) + 1);
        uint64_t length = 0;
        int32_t rc = host.txtrep(text, strlen(row.text), 32, row.from, strlen(row.from), row.to,
                                 strlen(row.to), &length);
        require(rc == 0 && strcmp(text, row.result) == 0,
                "\"" + std::string(row.text) + "\" becomes \"" + text + "\"");
        require(length == strlen(row.result), "new_length is " + std::to_string(length));
    }
}

static void replace_within_capacity() {
    char text[16] = "a.b.c";
    memset(text + 6, '#', sizeof text - 6);
    (void)host.txtrep(text, 5, 7, ".", 1, "1234", 4, nullptr);
    require(text[7] == '#', "bytes behind the capacity are written");
    require(memchr(text, '\0', 7) != nullptr, "the text has no zero byte within the capacity");
}

std::vector<rule> text_rules() {
    return {
        {"fold-lower", "txtmlo folds n bytes, the letters A to Z only, and writes no more",
         fold_to_lower},
        {"fold-upper", "txtmup folds n bytes, the letters a to z only, and writes no more",
         fold_to_upper},
        {"lower-copy", "txtlo writes a zero-terminated copy in lower case, also over an older text",
         lower_copy},
        {"compare",
         "txtclo returns 0 for texts that are equal apart from the case of ASCII letters", compare},
        {"replace", "txtrep replaces each occurrence in place and reports the new length", replace},
        {"replace-capacity",
         "txtrep never exceeds the capacity, and the text stays zero-terminated",
         replace_within_capacity},
    };
}

}  // namespace keyview::hosttest
