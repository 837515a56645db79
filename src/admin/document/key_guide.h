// Where a path leads in the table of the document's fields.
#ifndef KEYVIEW_ADMIN_DOCUMENT_KEY_GUIDE_H
#define KEYVIEW_ADMIN_DOCUMENT_KEY_GUIDE_H

#include <string>
#include <string_view>

#include "admin/document/fields.h"

namespace keyview::admin {

struct key_place {
    const record_table *record = nullptr;  // that the key is in; null if it is in none
    const field_row *field = nullptr;      // null for the record's own key, and for an unknown one
    bool is_type = false;
    std::string pattern;  // the path with <> for the names in it; "" for an unknown key
};

key_place place_of_key(std::string_view path);

}  // namespace keyview::admin

#endif
