// Names and values in both directions; see encoding.h.
#include "admin/document/encoding.h"

#include <algorithm>
#include <cstring>

#include "model/folding.h"
#include "model/text.h"

namespace keyview::admin {

using nlohmann::json;

static constexpr std::string_view ZERO("\0", 1);
static constexpr std::string_view TRUE_WORD("true\0", 5);
static constexpr std::string_view FALSE_WORD("false\0", 6);

std::string bytes_text(size_t count) {
    std::string digits = std::to_string(count);
    for (size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, ",");
    }
    return digits + " bytes";
}

std::optional<fault> check_name(std::string_view name, bool dotted, size_t limit) {
    if (name.empty()) return fault{"must not be empty"};
    if (!valid_utf8(name)) return fault{"is not valid UTF-8"};
    for (char byte : name) {
        auto code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7f) return fault{"must not hold a control character"};
        if (code == '.' && !dotted) {
            return fault{"must not hold a \".\": only the name of a service may"};
        }
    }
    if (name.size() + 1 > limit) {
        return fault{"is too long: with its zero byte a name here has up to " + bytes_text(limit)};
    }
    return std::nullopt;
}

// The longest path below a record's own key that a reader composes, its first "." included.
static size_t longest_below(const record_table &table) {
    size_t longest = 0;
    for (const field_row &row : table.fields)
        longest = std::max(longest, strlen(row.key) + 1);
    for (const list_row &row : table.lists)
        longest = std::max(longest, strlen(row.key) + 1);
    return longest;
}

std::optional<fault> check_path(const record_table &table, std::string_view path) {
    size_t longest = path.size() + longest_below(table);
    if (longest <= PATH_LIMIT) return std::nullopt;
    return fault{"makes key paths of " + bytes_text(longest) + "; their readers take up to " +
                 bytes_text(PATH_LIMIT)};
}

std::string path_below(const std::string &path, std::string_view element) {
    std::string below;
    below.reserve(path.size() + 1 + element.size());
    below = path;
    append_element(element, &below);
    return below;
}

void append_element(std::string_view element, std::string *path) {
    if (!path->empty()) *path += '.';
    *path += element;
}

std::string own_value(std::string_view name) {
    return std::string(name) + '\0';
}

static std::optional<fault> check_text(std::string_view text) {
    if (text.find('\0') != text.npos) {
        return fault{"must not hold a zero byte: its readers would stop there"};
    }
    return std::nullopt;
}

static std::optional<fault> check_word(const field_row &row, const std::string &text) {
    std::string folded = element_of(text);
    std::string known;
    for (const char *word : row.words) {
        if (element_of(word) == folded) return std::nullopt;
        known += (known.empty() ? "" : ", ") + std::string(word);
    }
    return fault{"is none of the words that its readers know: " + known};
}

static std::optional<fault> encode_text(const field_row &row, const json &value,
                                        std::string *stored) {
    if (!value.is_string()) return fault{"must be a string"};
    const auto &text = value.get_ref<const std::string &>();
    std::optional<fault> wrong = check_text(text);
    if (!wrong && row.kind == value_kind::word) wrong = check_word(row, text);
    if (wrong) return wrong;
    *stored = text;
    if (row.kind != value_kind::address || !text.empty()) *stored += '\0';
    return std::nullopt;
}

static std::optional<fault> encode_flag(const json &value, std::string *stored) {
    if (!value.is_boolean()) return fault{"must be true or false"};
    *stored = value.get<bool>() ? TRUE_WORD : FALSE_WORD;
    return std::nullopt;
}

static std::optional<fault> encode_env(const json &value, std::string *stored) {
    if (!value.is_array()) return fault{"must be an array of strings"};
    std::string list;
    for (size_t n = 0; n < value.size(); ++n) {
        int item = static_cast<int>(n);
        if (!value[n].is_string()) return fault{"must be a string", item};
        const auto &text = value[n].get_ref<const std::string &>();
        if (text.empty()) return fault{"must not be empty: its readers would stop there", item};
        std::optional<fault> wrong = check_text(text);
        if (wrong) return fault{wrong->reason, item};
        list += own_value(text);
    }
    *stored = list + '\0';
    return std::nullopt;
}

static std::optional<fault> encode_any(const field_row &row, const json &value,
                                       std::string *stored) {
    switch (row.kind) {
        case value_kind::flag:
            return encode_flag(value, stored);
        case value_kind::env:
            return encode_env(value, stored);
        default:
            return encode_text(row, value, stored);
    }
}

std::optional<fault> encode_value(const field_row &row, const json &value, std::string *stored) {
    std::string bytes;
    std::optional<fault> wrong = encode_any(row, value, &bytes);
    if (wrong) return wrong;
    if (bytes.size() > row.limit) {
        return fault{"is too long: stored, with its zero bytes, it may have up to " +
                     bytes_text(row.limit) + " and has " + bytes_text(bytes.size())};
    }
    *stored = std::move(bytes);
    return std::nullopt;
}

static std::optional<fault> decode_flag(std::string_view stored, json *value) {
    if (stored != TRUE_WORD && stored != FALSE_WORD) {
        return fault{
            "is not a flag: neither \"true\" nor \"false\", in lower case and with its zero byte"};
    }
    *value = stored == TRUE_WORD;
    return std::nullopt;
}

static std::optional<fault> decode_env(std::string_view stored, json *value) {
    *value = json::array();
    if (stored == ZERO) return std::nullopt;
    if (stored.size() < 2 || stored.substr(stored.size() - 2) != std::string_view("\0\0", 2)) {
        return fault{"is not a list of strings: each with its zero byte, and one zero byte more"};
    }
    stored.remove_suffix(1);
    while (!stored.empty()) {
        size_t end = stored.find('\0');
        value->push_back(std::string(stored.substr(0, end)));
        stored.remove_prefix(end + 1);
    }
    return std::nullopt;
}

static std::optional<fault> decode_text(const field_row &row, std::string_view stored,
                                        json *value) {
    if (row.kind == value_kind::address && stored.empty()) {
        *value = "";
        return std::nullopt;
    }
    if (stored.empty() || stored.back() != '\0') return fault{"does not end with a zero byte"};
    stored.remove_suffix(1);
    *value = std::string(stored);
    return std::nullopt;
}

std::optional<fault> decode_value(const field_row &row, std::string_view stored, json *value) {
    std::optional<fault> wrong = row.kind == value_kind::flag  ? decode_flag(stored, value)
                                 : row.kind == value_kind::env ? decode_env(stored, value)
                                                               : decode_text(row, stored, value);
    std::string again;
    if (!wrong) wrong = encode_value(row, *value, &again);
    if (!wrong && again != stored) {
        wrong = fault{"is stored in a form that a document cannot say"};
    }
    if (wrong && wrong->item >= 0) {
        wrong->reason = "string " + std::to_string(wrong->item) + " " + wrong->reason;
    }
    return wrong;
}

std::optional<fault> decode_own_value(const record_table &table, std::string_view element,
                                      std::string_view stored, std::string *name) {
    if (stored.empty()) return fault{"has no own value, which would be its registered name"};
    if (stored.back() != '\0') return fault{"has an own value that does not end with a zero byte"};
    stored.remove_suffix(1);
    std::optional<fault> wrong = check_name(stored, table.dotted_name, table.name_limit);
    if (wrong) return fault{"has an own value that is no name: it " + wrong->reason};
    if (element_of(stored, table.dotted_name) != element) {
        return fault{"has an own value that does not fold to the key's own element"};
    }
    *name = std::string(stored);
    return std::nullopt;
}

}  // namespace keyview::admin
