// Reads fields by their rows.
#include "keyview/core/fields.h"

#include "keyview/core/lists.h"
#include "model/words.h"
#include "platform/txt.h"

static char *alloc_next(prsr_field_reader *fields, size_t size) {
    prsr_block *block = fields->first.text == nullptr ? &fields->first : &fields->second;
    block->text = static_cast<char *>(prsr_alloc(fields->ctx, fields->reader.function, size));
    return block->text;
}

bool prsr_alloc_field_path(prsr_field_reader *fields) {
    fields->path = {alloc_next(fields, PATH_CAPACITY), PATH_CAPACITY, 0};
    return fields->path.text != nullptr;
}

bool prsr_alloc_field_value(prsr_field_reader *fields) {
    fields->value.buffer = alloc_next(fields, VALUE_CAPACITY);
    return fields->value.buffer != nullptr;
}

bool prsr_start_fields(prsr_field_reader *fields, std::string_view record_key) {
    fields->kept = record_key.size();
    return prsr_start_path(&fields->path, record_key);
}

// ---- One value ----------------------------------------------------------------------------------

static bool open_field(prsr_field_reader *fields) {
    return prsr_open_reported(fields->reader, fields->path.text, fields->key) == KVTC_SUCCESS;
}

bool prsr_read_field(prsr_field_reader *fields) {
    if (prsr_read_reported(fields->reader, fields->path.text, *fields->key, &fields->value) ==
        KVTC_SUCCESS) {
        return true;
    }
    fields->value.size = 0;
    return false;
}

int32_t prsr_keep_field(prsr_field_reader *fields, char **field) {
    *field = prsr_copy_text(fields->ctx, fields->reader.function, fields->value.buffer,
                            fields->value.length());
    if (*field == nullptr) return PRSR_ERR_MEMORY;
    fields->key->close();
    return PRSR_SUCCESS;
}

int32_t prsr_load_open_field(prsr_field_reader *fields, char **field) {
    (void)prsr_read_field(fields);  // an unreadable value has been reported and is ""
    return prsr_keep_field(fields, field);
}

int32_t prsr_parse_enabled(const char *word) {
    return txtclo(word, model::FLAG_FALSE) == 0 ? 0 : 1;
}

// ---- Rows ---------------------------------------------------------------------------------------

template <typename Field>
static Field *field_at(void *record, size_t offset) {
    return reinterpret_cast<Field *>(static_cast<char *>(record) + offset);
}

static void load_number(prsr_field_reader *fields, const prsr_field &row, int32_t *field) {
    if (prsr_read_field(fields)) *field = row.parse(fields->value.text());
    fields->key->close();
}

static int32_t load_list(prsr_field_reader *fields, const prsr_field &row, void *record) {
    const int32_t rc =
        prsr_get_multivalues(fields->ctx, fields->path.text, field_at<char **>(record, row.offset),
                             field_at<uint32_t>(record, row.count_offset));
    return row.rule == prsr_rule::WHOLE_LIST ? rc : PRSR_SUCCESS;
}

static int32_t load_row(prsr_field_reader *fields, const prsr_field &row, void *record) {
    if (!prsr_build_field(fields, row.key)) return PRSR_ERR_ARGUMENT;
    char **string = field_at<char *>(record, row.offset);
    switch (row.rule) {
        case prsr_rule::STRING:
            return open_field(fields) ? prsr_load_open_field(fields, string) : PRSR_SUCCESS;
        case prsr_rule::LONG_STRING:
            (void)prsr_open_get_value(fields->ctx, fields->path.text, string);  // has reported it
            return PRSR_SUCCESS;
        case prsr_rule::NUMBER:
            if (open_field(fields)) load_number(fields, row, field_at<int32_t>(record, row.offset));
            return PRSR_SUCCESS;
        case prsr_rule::LIST:
        case prsr_rule::WHOLE_LIST:
            return load_list(fields, row, record);
    }
    return PRSR_SUCCESS;
}

int32_t prsr_load_rows(prsr_field_reader *fields, const prsr_field *rows, size_t row_count,
                       void *record) {
    for (size_t i = 0; i < row_count; ++i) {
        const int32_t rc = load_row(fields, rows[i], record);
        if (rc != PRSR_SUCCESS) return rc;
    }
    return PRSR_SUCCESS;
}

int32_t prsr_load_name(const prsr_reader &reader, const char *record_key, prsr_key *key,
                       size_t length, char **name) {
    *name = static_cast<char *>(prsr_alloc(reader.ctx, reader.function, length + 1));
    if (*name == nullptr) return PRSR_ERR_MEMORY;
    if (!key->is_open && prsr_open_reported(reader, record_key, key) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    return prsr_read_name_reported(reader, record_key, *key, *name, length) == KVTC_SUCCESS
               ? PRSR_SUCCESS
               : PRSR_ERR_REGISTRY;
}
