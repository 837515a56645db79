// The reader of a record's fields. The keys below a record's own key are read one after the other
// through one path and one value buffer. A table maps keys to fields and
// rules; a key with a rule of its own is read step by step with the same functions.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "keyview/core/paths.h"
#include "keyview/core/registry.h"

// How a key fills its field. A key that does not open or cannot be read is reported.
enum class prsr_rule {
    STRING,       // null if the key does not open, "" if its value cannot be read
    LONG_STRING,  // a value of any length; "" in either case, null without memory
    NUMBER,       // the parsed word; unchanged in either case
    LIST,         // a multi-value; empty in either case and without memory
    WHOLE_LIST,   // a multi-value; empty in either case, but lack of memory ends the load
};

// A row of a table; the rows stand in reading order, which the trace shows.
struct prsr_field {
    std::string_view key;
    prsr_rule rule;
    size_t offset;                                 // of the field in its record, of plain layout
    size_t count_offset = 0;                       // of a list's uint32_t
    int32_t (*parse)(const char *word) = nullptr;  // of a number
};

// Read upwards, the members are the order of release. Empty at first.
struct prsr_field_reader {
    prsr_field_reader(prsr_ctx *owner, const char *function, prsr_key *open_key)
        : ctx(owner),
          reader(owner, function),
          key(open_key),
          first(owner->mem),
          second(owner->mem) {}

    prsr_ctx *ctx;
    prsr_reader reader;
    prsr_key *key;      // the one key that is open; its owner decides when a failure closes it
    prsr_block first;   // the path's or the value's block, whichever was allocated first
    prsr_block second;  // the other one
    prsr_path path;     // of a key below the record
    size_t kept = 0;    // length of the record's own key in path
    prsr_value value;
};

// Allocate the block of the path, PATH_CAPACITY bytes, and that of the value, VALUE_CAPACITY bytes.
// False after a report.
[[nodiscard]] bool prsr_alloc_field_path(prsr_field_reader *fields);
[[nodiscard]] bool prsr_alloc_field_value(prsr_field_reader *fields);

// Makes the path that of the record's own key. False if it does not fit.
[[nodiscard]] bool prsr_start_fields(prsr_field_reader *fields, std::string_view record_key);

// Makes the path that of this element, or path, below the record. False if it does not fit.
[[nodiscard]] inline bool prsr_build_field(prsr_field_reader *fields, std::string_view element) {
    return prsr_extend_path(&fields->path, fields->kept, element);
}

// Reads the value of the open key of the path. False after a report; the value is then empty.
[[nodiscard]] bool prsr_read_field(prsr_field_reader *fields);

// Copies the value into a string and closes the key. Returns PRSR_ERR_MEMORY with the key still
// open.
[[nodiscard]] int32_t prsr_keep_field(prsr_field_reader *fields, char **field);

// Reads the open key of the path by the rule STRING.
[[nodiscard]] int32_t prsr_load_open_field(prsr_field_reader *fields, char **field);

// Reads the rows of a table into a record. Returns PRSR_ERR_ARGUMENT if a path does not fit;
// PRSR_ERR_MEMORY, with the key still open.
[[nodiscard]] int32_t prsr_load_rows(prsr_field_reader *fields, const prsr_field *rows,
                                     size_t row_count, void *record);

template <size_t ROW_COUNT>
[[nodiscard]] int32_t prsr_load_fields(prsr_field_reader *fields,
                                       const prsr_field (&rows)[ROW_COUNT], void *record) {
    return prsr_load_rows(fields, rows, ROW_COUNT, record);
}

// Reads a record's own value, its name, into length + 1 new bytes. Opens its key unless it is open,
// and leaves it open. Returns PRSR_ERR_REGISTRY; PRSR_ERR_MEMORY, before the key is opened.
[[nodiscard]] int32_t prsr_load_name(const prsr_reader &reader, const char *record_key,
                                     prsr_key *key, size_t length, char **name);

// Parses a flag: everything but FALSE enables.
[[nodiscard]] int32_t prsr_parse_enabled(const char *word);
