// YAML beside JSON: documents that are read, answers that are written.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace keyview::ctl {

// A file's name ends as those of YAML files do.
bool has_yaml_name(const std::string &file);

// The JSON text of a document: as it is, or the one that its YAML stands for. What is YAML shows in
// the file's name or, for other names, in the first line. Plain words are what they are in JSON;
// all others, such as no and 0x1F, are strings. Duplicate keys are left to the reader of the JSON.
//
// Throws an admin::error with the faults: what is no YAML, anchors and aliases, tags, further
// documents, and what JSON does not have.
std::string json_text_of(const std::string &file, std::string content);

// A value in YAML; ascii: with all other characters escaped.
std::string yaml_of(const nlohmann::ordered_json &value, bool ascii);

}  // namespace keyview::ctl
