// See byte_strings.h.
#include "admin/document/byte_strings.h"

#include <algorithm>

#include "admin/document/base64.h"
#include "model/text.h"

namespace keyview::admin {

using nlohmann::json;
using nlohmann::ordered_json;

static constexpr std::string_view SUFFIX = "_base64";

std::string byte_field(const field_row &row) {
    return row.field + std::string(SUFFIX);
}

// Words and flags are plain text.
static bool has_byte_form(const field_row &row) {
    return row.kind != value_kind::flag && row.kind != value_kind::word;
}

bool is_byte_field(const field_row &row, std::string_view name) {
    if (!has_byte_form(row)) return false;
    size_t plain = name.size() - std::min(name.size(), SUFFIX.size());
    return name.substr(plain) == SUFFIX && name.substr(0, plain) == row.field;
}

bool has_byte_field(const field_row &row, const json &record) {
    return has_byte_form(row) && record.contains(byte_field(row));
}

// ---- Writing ------------------------------------------------------------------------------------

static const std::string &bytes_in(const json &text) {
    return text.get_ref<const std::string &>();
}

static json base64_in(const json &text) {
    return valid_utf8(bytes_in(text)) ? json() : json(to_base64(bytes_in(text)));
}

static void put_list(const field_row &row, const json &list, ordered_json *record) {
    json plain = json::array(), bytes = json::array();
    bool any = false;
    for (const json &text : list) {
        bytes.push_back(base64_in(text));
        plain.push_back(bytes.back().is_null() ? text : json());
        any = any || !bytes.back().is_null();
    }
    (*record)[row.field] = plain;
    if (any) (*record)[byte_field(row)] = bytes;
}

void put_strings(const field_row &row, const json &value, ordered_json *record) {
    if (value.is_array()) return put_list(row, value, record);
    json bytes = value.is_string() ? base64_in(value) : json();
    (*record)[row.field] = bytes.is_null() ? value : json();
    if (!bytes.is_null()) (*record)[byte_field(row)] = bytes;
}

// ---- Reading ------------------------------------------------------------------------------------

static std::optional<fault> take_bytes(const json &base64, json *text) {
    std::string bytes;
    if (!base64.is_string() || !from_base64(bytes_in(base64), &bytes))
        return fault{"must be bytes in base64"};
    *text = bytes;
    return std::nullopt;
}

static std::optional<fault> take_list(const json &base64, json *list) {
    if (!base64.is_array() || !list->is_array() || base64.size() != list->size())
        return fault{"must be an array with a place for each string of the field without _base64"};
    for (size_t n = 0; n < base64.size(); ++n) {
        json &text = (*list)[n];
        if (base64[n].is_null()) continue;
        if (!text.is_null()) return fault{"stands beside a string", static_cast<int>(n)};
        if (auto wrong = take_bytes(base64[n], &text))
            return fault{wrong->reason, static_cast<int>(n)};
    }
    return std::nullopt;
}

std::optional<fault> take_strings(const field_row &row, const json &record, json *value) {
    const json &base64 = record.at(byte_field(row));
    auto plain = record.find(row.field);
    json taken = plain == record.end() ? json() : *plain;
    std::optional<fault> wrong;
    if (row.kind == value_kind::env) {
        wrong = take_list(base64, &taken);
    } else if (!taken.is_null()) {
        wrong = fault{"stands beside the field without _base64"};
    } else {
        wrong = take_bytes(base64, &taken);
    }
    if (!wrong) *value = std::move(taken);
    return wrong;
}

}  // namespace keyview::admin
