// See values.h.
#include "admin/document/values.h"

#include "admin/document/encoding.h"
#include "admin/document/meanings.h"
#include "admin/error.h"
#include "model/folding.h"
#include "model/records.h"
#include "model/text.h"

namespace keyview::admin {

static nlohmann::json json_meant(value_kind kind, const std::vector<std::string> &values) {
    for (const std::string &value : values) {
        if (!valid_utf8(value))
            throw error(KEYVIEW_FAILURE_CONTENT, "the value is not valid UTF-8");
    }
    if (kind == value_kind::env) return values;
    if (values.size() != 1) throw error(KEYVIEW_FAILURE_USAGE, "this key takes one value");
    if (kind != value_kind::flag) return values[0];
    std::string word = element_of(values[0]);
    if (word == "true" || word == "false") return word == "true";
    throw error(KEYVIEW_FAILURE_CONTENT, "the value of a flag is true or false, not " + values[0]);
}

static std::string encode_name(const record_table &table, std::string_view path,
                               const std::vector<std::string> &values) {
    if (values.size() != 1) throw error(KEYVIEW_FAILURE_USAGE, "this key takes one value");
    std::string stored = own_value(values[0]), name;
    std::string_view element = last_element(path);
    std::optional<fault> wrong = decode_own_value(table, element, stored, &name);
    if (wrong) throw error(KEYVIEW_FAILURE_CONTENT, std::string(path) + " " + wrong->reason);
    return stored;
}

static std::string encode_type(const std::vector<std::string> &values) {
    for (const char *word : {TYPE_PREFERRED, TYPE_AVAILABLE})
        if (values.size() == 1 && values[0] == word) return own_value(word);
    throw error(KEYVIEW_FAILURE_CONTENT,
                "the value of TYPE is PREFERRED or AVAILABLE, in upper case");
}

static std::string encode_meant(std::string_view path, const std::vector<std::string> &values) {
    key_location place = locate_key(path);
    if (place.is_type) return encode_type(values);
    if (place.field == nullptr && place.record != nullptr)
        return encode_name(*place.record, path, values);
    if (place.field == nullptr) {
        throw error(
            KEYVIEW_FAILURE_CONTENT,
            std::string(path) + " has no meaning here: say how its value is stored, with --as");
    }
    std::string stored;
    std::optional<fault> wrong =
        encode_value(*place.field, json_meant(place.field->kind, values), &stored);
    if (wrong)
        throw error(KEYVIEW_FAILURE_CONTENT,
                    "the value of " + std::string(path) + " " + wrong->reason);
    return stored;
}

static std::string encode_list(const std::vector<std::string> &values) {
    std::string out;
    for (const std::string &value : values)
        out += own_value(value);
    return out + '\0';
}

std::string encode_for(std::string_view path, encoding how,
                       const std::vector<std::string> &values) {
    if (how == encoding::list) return encode_list(values);
    if (how == encoding::as_meant) return encode_meant(path, values);
    if (values.size() == 1) return own_value(values[0]);
    throw error(KEYVIEW_FAILURE_USAGE, "a text is one value");
}

std::string value_for_people(std::string_view value) {
    if (value.empty()) return "";
    bool ends = value.back() == '\0';
    std::string_view text = value.substr(0, value.size() - (ends ? 1 : 0));
    if (ends && text.find('\0') == text.npos) return std::string(text);
    bool list = text.size() > 1 && ends && text.back() == '\0' && text[0] != '\0' &&
                text.find(std::string_view("\0\0", 2)) == text.npos;
    if (!list) return std::string(value) + (ends ? "" : " (without a zero byte)");
    std::string out = "[";
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\0', at);
        out += (at > 0 ? ", " : "") + std::string(text.substr(at, end - at));
        at = end + 1;
    }
    return out + "]";
}

}  // namespace keyview::admin
