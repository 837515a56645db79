// Strict reading of a JSON text: as nlohmann::json reads it, but a key that stands twice in one
// object is a problem and not a silent choice.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

#include "admin/error.h"

namespace keyview::admin {

// The value of a text; null, with problems, if the text is no JSON.
nlohmann::json parse_json(std::string_view text, problem_list *problems);

// "line 3, column 14" of a byte. Columns count characters.
std::string line_and_column(std::string_view text, size_t offset);

}  // namespace keyview::admin
