// What the keys of the tree mean, from the tables of the model.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/records.h"

namespace keyview::admin {

// Where a path leads in the tables.
struct key_location {
    const record_table *record = nullptr;  // that the key is in; null if it is in none
    const field_row *field = nullptr;      // null for the record's own key, and for an unknown one
    bool is_type = false;
    std::string pattern;  // the path with <> for the names in it; "" for an unknown key
};

key_location locate_key(std::string_view path);

// The own key of the record that a key belongs to, or of a list's record; "" if there is none.
std::string record_of(std::string_view path);

// The path with its names as readers fold them: the only one under which they find the key.
std::string folded_path(std::string_view path);

// The elements that a key one level below has, where the tables name them: "ROLE", "INSTANCE" ...
std::vector<std::string> known_elements(std::string_view parent);

// What a key means, who uses it, how it is stored. path has names in <>, such as
// "DATABASE.DATABASES.<db>.ENABLED".
struct key_meaning {
    std::string path, meaning, written_by, read_by, encoding, absence;
};
std::vector<key_meaning> key_meanings();
// The meaning of one key, by its path or by a path with <>; nothing for a key of other programs.
std::optional<key_meaning> meaning_of(std::string_view path);

// A field of a document, in the order in which documents are written: the record that has it, such
// as "databases[].instances[]", its type in a word, the key below the record's own, and how many
// bytes are stored at most, or 0 where the key has a value of another kind.
struct document_field {
    std::string record, field, type, key;
    uint32_t limit = 0;
    std::vector<std::string> words = {};
};
std::vector<document_field> document_fields();

}  // namespace keyview::admin
