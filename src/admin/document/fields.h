// What a cluster document may say and which key holds it: one table for reading and writing. A new
// field is a new row.
#ifndef KEYVIEW_ADMIN_DOCUMENT_FIELDS_H
#define KEYVIEW_ADMIN_DOCUMENT_FIELDS_H

#include <cstddef>
#include <cstdint>

#include "model/path.h"

namespace keyview::admin {

// A table of constant rows.
template <typename row>
struct rows {
    const row *first = nullptr;
    size_t count = 0;

    constexpr rows() = default;
    template <size_t n>
    constexpr rows(const row (&table)[n]) : first(table), count(n) {}
    constexpr const row *begin() const { return first; }
    constexpr const row *end() const { return first + count; }
};

enum class value_kind {
    text,     // a string with its zero byte
    address,  // the same, but an empty one has no bytes at all: its reader then looks elsewhere
    word,     // a text, one of the row's words in any case
    flag,     // true or false as a word
    env,      // a list of strings in one value
};

// Readers take most texts into a buffer of this many bytes; their zero byte counts.
constexpr uint32_t READER_LIMIT = 1024;
// The bound where readers grow their buffer.
constexpr uint32_t GROWING_LIMIT = MAX_VALUE_SIZE;
// The longest path that the readers' blocks hold.
constexpr size_t PATH_LIMIT = MAX_PATH_LENGTH;

struct field_row {
    const char *field;  // in the document
    const char *key;    // elements below the record's own key
    value_kind kind;
    uint32_t limit = READER_LIMIT;  // bytes of the stored value
    rows<const char *> words = {};  // of value_kind::word
};

struct record_table;

// Records of one kind, side by side under one list key, which itself has an empty value.
struct list_row {
    const char *field;
    const char *key;
    const record_table *record;
    const char *type = nullptr;  // the word in each record's TYPE_KEY, if the list is a typed one
};

// Tells the typed lists of one key apart.
constexpr const char *TYPE_KEY = "TYPE";

struct record_table {
    bool scoped = false;                 // addressed by "scope" and "name": two elements
    bool dotted_name = false;            // a "." in the name becomes "*" in the element
    size_t name_limit = PATH_LIMIT + 1;  // bytes of the own value
    rows<field_row> fields = {};
    rows<list_row> lists = {};
};

extern const record_table DATABASE;

// The sections of a document, each with its root.
extern const rows<list_row> SECTIONS;

constexpr const char *FORMAT = "keyview-cluster";
constexpr int VERSION = 1;

}  // namespace keyview::admin

#endif
