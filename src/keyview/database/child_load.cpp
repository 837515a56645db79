// The steps that loads of instances and services share.
#include "keyview/database/child_load.h"

int32_t prsr_start_child(child_load *load, const char *db_key, const char *list,
                         std::string_view element) {
    if (!prsr_alloc_field_value(&load->fields) || !prsr_alloc_field_path(&load->fields) ||
        !prsr_alloc_path(load->ctx, load->fields.reader.function, PATH_CAPACITY,
                         &load->record_key)) {
        return PRSR_ERR_MEMORY;
    }
    return prsr_start_path(&load->record_key, db_key, list, element) &&
                   prsr_start_fields(&load->fields, load->record_key.view())
               ? PRSR_SUCCESS
               : PRSR_ERR_ARGUMENT;
}

int32_t prsr_load_child_name(child_load *load, size_t length, char **name) {
    const int32_t rc =
        prsr_load_name(load->fields.reader, load->record_key.text, &load->key, length, name);
    load->key.close();
    return rc;
}
