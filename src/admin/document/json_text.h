// Strict reading of a JSON text: as nlohmann::json reads it, but a key that stands twice in one
// object is a problem and not a silent choice.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "admin/error.h"

namespace keyview::admin {

// Receives an item of a list that is a field of the outermost object, with its number. Such items are
// then no part of the value, so that a long document is never in memory as a whole.
using item_sink =
    std::function<void(const std::string &field, size_t number, const nlohmann::json &item)>;

// The value of a text; null, with problems, if the text is no JSON.
nlohmann::json parse_json(std::string_view text, problem_list *problems,
                          const item_sink &item = {});

// "line 3, column 14" of a byte. Columns count characters.
std::string line_and_column(std::string_view text, size_t offset);

}  // namespace keyview::admin
