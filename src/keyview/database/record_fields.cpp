// The optional fields of a database's record: strings, flag and environment.
#include <stddef.h>
#include <string.h>

#include <type_traits>

#include "keyview/core/lists.h"
#include "keyview/database/db_fetch.h"
#include "model/words.h"
#include "platform/trcd.h"
#include "platform/txt.h"

static_assert(std::is_standard_layout_v<prsr_cfg>, "offsetof needs a plain record");

// In reading order, which the trace shows.
static const prsr_string_field STRING_FIELDS[] = {
    {model::KEY_SPFILE, offsetof(prsr_cfg, spfile)},
    {model::KEY_DB_NAME, offsetof(prsr_cfg, db_name)},
    {model::KEY_ROLE, offsetof(prsr_cfg, role)},
    {model::KEY_START_OPTIONS, offsetof(prsr_cfg, start_options)},
};

// Copies the value that was read last into a field.
static int32_t keep_value(db_fetch *fetch, char **field) {
    *field = prsr_copy_text(fetch->ctx, FETCH_DB, fetch->value.buffer, fetch->value.length());
    return *field != nullptr ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

// Reads the open key into a field; an unreadable value gives the empty string.
static int32_t load_open_string(db_fetch *fetch, char **field) {
    const int32_t kv =
        prsr_read_reported(fetch->reader(), fetch->field_key.text, fetch->key, &fetch->value);
    if (kv != KVTC_SUCCESS) {
        *field = static_cast<char *>(fetch->alloc(1));
        if (*field == nullptr) return PRSR_ERR_MEMORY;
    } else {
        const int32_t rc = keep_value(fetch, field);
        if (rc != PRSR_SUCCESS) return rc;
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

// The plain rule, for the key in field_key: one that does not open leaves the field null.
static int32_t load_string(db_fetch *fetch, char **field) {
    const int32_t kv = prsr_open_reported(fetch->reader(), fetch->field_key.text, &fetch->key);
    return kv == KVTC_SUCCESS ? load_open_string(fetch, field) : PRSR_SUCCESS;
}

static int32_t load_alias_ip(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_ALIAS_IP)) return PRSR_ERR_ARGUMENT;
    const char *path = fetch->field_key.text;
    const int32_t kv = fetch->key.open(path);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) {
        trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: key %s not found", path);
        return PRSR_SUCCESS;
    }
    if (kv != KVTC_SUCCESS) {
        fetch->reader().report("kvtc_open_key", path, kv);
        return PRSR_SUCCESS;
    }
    // Unlike the other strings, an unreadable alias stays null.
    if (prsr_read_reported(fetch->reader(), path, fetch->key, &fetch->value) == KVTC_SUCCESS) {
        const int32_t rc = keep_value(fetch, &fetch->record.cfg->alias_ip);
        if (rc != PRSR_SUCCESS) return rc;
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

static int32_t load_home(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_HOME)) return PRSR_ERR_ARGUMENT;
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS,
               "prsr_fetch_db_config: name of the TALVEN_HOME key = %s", fetch->field_key.text);
    return load_string(fetch, &fetch->record.cfg->home);
}

static int32_t load_policy(db_fetch *fetch) {
    constexpr std::string_view DEFAULT_POLICY = model::DEFAULT_POLICY;
    if (!prsr_build_db_field(fetch, model::KEY_POLICY)) return PRSR_ERR_ARGUMENT;
    const char *path = fetch->field_key.text;
    char **field = &fetch->record.cfg->policy;
    const int32_t kv = fetch->key.open(path);
    if (kv == KVTC_SUCCESS) return load_open_string(fetch, field);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) {
        *field = prsr_strndup(fetch->ctx->mem, DEFAULT_POLICY.data(), DEFAULT_POLICY.size());
        if (*field != nullptr) return PRSR_SUCCESS;
        prsr_report_allocation(fetch->ctx, FETCH_DB, DEFAULT_POLICY.size() + 1);
        return PRSR_ERR_MEMORY;
    }
    fetch->reader().report("kvtc_open_key", path, kv);
    return PRSR_SUCCESS;
}

int32_t prsr_load_db_strings(db_fetch *fetch) {
    int32_t rc = load_alias_ip(fetch);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_home(fetch);
    if (rc != PRSR_SUCCESS) return rc;
    for (const prsr_string_field &row : STRING_FIELDS) {
        if (!prsr_build_db_field(fetch, row.key)) return PRSR_ERR_ARGUMENT;
        rc = load_string(fetch, row.of(fetch->record.cfg));
        if (rc != PRSR_SUCCESS) return rc;
    }
    return load_policy(fetch);
}

// The domain is the one field whose lack of memory is no failure: it stays null, without a message.
int32_t prsr_load_db_domain(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_DOMAIN)) return PRSR_ERR_ARGUMENT;
    const prsr_reader reader = fetch->reader();
    const char *path = fetch->field_key.text;
    if (prsr_open_reported(reader, path, &fetch->key) != KVTC_SUCCESS) return PRSR_SUCCESS;
    const int32_t kv = prsr_read_reported(reader, path, fetch->key, &fetch->value);
    const uint32_t length = kv == KVTC_SUCCESS ? fetch->value.length() : 0;
    auto *copy = static_cast<char *>(tmem_allocm(fetch->ctx->mem, length + 1));
    if (copy != nullptr) memcpy(copy, fetch->value.buffer, length);
    fetch->record.cfg->domain = copy;
    fetch->key.close();
    return PRSR_SUCCESS;
}

int32_t prsr_load_db_enabled(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_ENABLED)) return PRSR_ERR_ARGUMENT;
    const prsr_reader reader = fetch->reader();
    const char *path = fetch->field_key.text;
    void *trc = fetch->ctx->trc;
    trcdprintf(trc, TRCD_PROGRESS, "prsr_fetch_db_config: db_key = %s, key_name = %s",
               fetch->db_key.text, path);
    if (prsr_open_reported(reader, path, &fetch->key) != KVTC_SUCCESS) return PRSR_SUCCESS;

    char
        buffer[VALUE_CAPACITY + 1];  // the trace shows the whole value, with or without a zero byte
    prsr_value value{buffer, sizeof buffer};
    const int32_t kv = prsr_read_value(fetch->key, &value);
    trcdprintf(trc, TRCD_PROGRESS, "prsr_fetch_db_config: value size is : %d",
               static_cast<int>(value.size));
    if (kv == KVTC_SUCCESS) {
        const char *word = value.text();
        trcdprintf(trc, TRCD_PROGRESS, "prsr_fetch_db_config: value is : %s", word);
        fetch->record.cfg->enabled = txtclo(word, model::FLAG_FALSE) == 0 ? 0 : 1;
    } else {
        reader.report("kvtc_get_value", path, kv);
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

int32_t prsr_load_db_env(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_ENVIRONMENT)) return PRSR_ERR_ARGUMENT;
    // A list that cannot be read is an empty one; the reader has logged it.
    (void)prsr_get_multivalues(fetch->ctx, fetch->field_key.text, &fetch->record.cfg->env,
                               &fetch->record.cfg->env_n);
    return PRSR_SUCCESS;
}
