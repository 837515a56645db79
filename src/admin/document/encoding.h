// How names become path elements and fields become stored values, and back. Each check is made in
// one direction only: reading a stored value encodes it again and compares.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "model/records.h"

namespace keyview::admin {

// What is wrong with a field. item is the index within a list, or -1.
struct fault {
    std::string reason;
    int item = -1;
};

// What keeps a text from being a registered name, if anything does. limit counts the zero byte.
std::optional<fault> check_name(std::string_view name, bool dotted, size_t limit);

// What keeps readers from composing the paths of a record at path, if anything does.
std::optional<fault> check_path(const record_table &table, std::string_view path);

// "1,024 bytes".
std::string bytes_text(size_t count);

// The path of a key below another one.
std::string path_below(const std::string &path, std::string_view element);
void append_element(std::string_view element, std::string *path);

// The stored form of a name, its zero byte included.
std::string own_value(std::string_view name);

// The stored form of a field's value, whose strings may be any bytes; a fault, and *stored as it
// was, if there is none.
std::optional<fault> encode_value(const field_row &row, const nlohmann::json &value,
                                  std::string *stored);

// The field's value for a stored one; a fault if encode_value would never give these bytes.
std::optional<fault> decode_value(const field_row &row, std::string_view stored,
                                  nlohmann::json *value);

// The name in a stored own value of the key of this element.
std::optional<fault> decode_own_value(const record_table &table, std::string_view element,
                                      std::string_view stored, std::string *name);

}  // namespace keyview::admin
