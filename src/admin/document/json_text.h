// Strict reading of a JSON text: as nlohmann::json reads it, but a key that stands twice in one
// object is a problem and not a silent choice.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

#include "admin/error.h"

namespace keyview::admin {

// The value of a text; null, with problems, if the text is no JSON.
nlohmann::json parse_json(std::string_view text, problem_list *problems);

}  // namespace keyview::admin
