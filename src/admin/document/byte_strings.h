// Strings of a document that are no UTF-8. JSON cannot hold them, so they are null, and stand in
// base64 under a second field, "spfile_base64" for "spfile"; in a list each such string by itself.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "admin/document/encoding.h"
#include "model/records.h"

namespace keyview::admin {

// Whether a name is that of the second field, and whether a record has it. Flags and words have
// none.
bool is_byte_field(const field_row &row, std::string_view name);
bool has_byte_field(const field_row &row, const nlohmann::json &record);
std::string byte_field(const field_row &row);

// Puts a value, whose strings may be any bytes, into a record.
void put_strings(const field_row &row, const nlohmann::json &value, nlohmann::ordered_json *record);

// The value that a record with the second field has for both, its strings being bytes; a fault of
// the second field, and *value as it was, if they do not fit.
std::optional<fault> take_strings(const field_row &row, const nlohmann::json &record,
                                  nlohmann::json *value);

}  // namespace keyview::admin
