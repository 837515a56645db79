// A view as programs read it: JSON, a JSON line an item, cells between tabs, or bare text.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ctl/view.h"

namespace keyview::ctl {

// Fields under their names, behind kind and version. A text that is no UTF-8 is null under its own
// name and in base64 under that name with "_base64" appended; in a list, too.
nlohmann::ordered_json document_of(const char *kind, const view_fields &fields);

// The document on one line. If the last field is a list, a line for each item of it instead: the
// document with "item" instead of the list.
std::string lines_of(const char *kind, const view_fields &fields);

// The last field: records of a list as rows below a heading, the fields of a record as a name and a
// value a line. Null is \N; a tab, a line feed or another control character in a value is escaped.
std::string cells_of(const view &shown);

// A single value, or the items of a list a line each, as they are; false for records.
[[nodiscard]] bool bare_text_of(const view &shown, std::string *text);

}  // namespace keyview::ctl
