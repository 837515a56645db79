// Stored values as a person writes and reads them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace keyview::admin {

// The stored form of what a person writes for a key: as the key's readers expect it (as_meant), or
// a text with its zero byte, or a list of strings.
enum class encoding { as_meant, text, list };
std::string encode_for(std::string_view path, encoding how, const std::vector<std::string> &values);

// What a person reads for a stored value: a text without its zero byte, a list in brackets; what
// is neither comes as it is stored, with a remark.
std::string value_for_people(std::string_view value);

}  // namespace keyview::admin
