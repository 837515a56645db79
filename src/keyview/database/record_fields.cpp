// The optional fields of a database's record: strings, domain, flag and environment.
#include <stddef.h>
#include <string.h>

#include <type_traits>

#include "keyview/database/db_fetch.h"
#include "model/roots.h"
#include "model/words.h"
#include "platform/trcd.h"

static_assert(std::is_standard_layout_v<prsr_cfg>, "offsetof needs a plain record");

static const prsr_field STRING_FIELDS[] = {
    {model::KEY_HOME, prsr_rule::STRING, offsetof(prsr_cfg, home)},
    {model::KEY_SPFILE, prsr_rule::STRING, offsetof(prsr_cfg, spfile)},
    {model::KEY_DB_NAME, prsr_rule::STRING, offsetof(prsr_cfg, db_name)},
    {model::KEY_ROLE, prsr_rule::STRING, offsetof(prsr_cfg, role)},
    {model::KEY_START_OPTIONS, prsr_rule::STRING, offsetof(prsr_cfg, start_options)},
};
static const prsr_field ENVIRONMENT_FIELD[] = {
    {model::KEY_ENVIRONMENT, prsr_rule::LIST, offsetof(prsr_cfg, env), offsetof(prsr_cfg, env_n)},
};

// ---- Strings ------------------------------------------------------------------------------------

static int32_t load_alias_ip(db_fetch *fetch) {
    if (!prsr_build_field(&fetch->fields, model::KEY_ALIAS_IP)) return PRSR_ERR_ARGUMENT;
    const char *path = fetch->fields.path.text;
    const int32_t kv = fetch->key.open(path);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) {
        trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: key %s not found", path);
        return PRSR_SUCCESS;
    }
    if (kv != KVTC_SUCCESS) {
        fetch->fields.reader.report("kvtc_open_key", path, kv);
        return PRSR_SUCCESS;
    }
    // Unlike the other strings, an unreadable alias stays null.
    if (prsr_read_field(&fetch->fields)) {
        return prsr_keep_field(&fetch->fields, &fetch->record.cfg->alias_ip);
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

static int32_t load_policy(db_fetch *fetch) {
    constexpr std::string_view DEFAULT_POLICY = model::DEFAULT_POLICY;
    if (!prsr_build_field(&fetch->fields, model::KEY_POLICY)) return PRSR_ERR_ARGUMENT;
    const char *path = fetch->fields.path.text;
    char **field = &fetch->record.cfg->policy;
    const int32_t kv = fetch->key.open(path);
    if (kv == KVTC_SUCCESS) return prsr_load_open_field(&fetch->fields, field);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) {
        *field = prsr_strndup(fetch->ctx->mem, DEFAULT_POLICY.data(), DEFAULT_POLICY.size());
        if (*field != nullptr) return PRSR_SUCCESS;
        prsr_report_allocation(fetch->ctx, FETCH_DB, DEFAULT_POLICY.size() + 1);
        return PRSR_ERR_MEMORY;
    }
    fetch->fields.reader.report("kvtc_open_key", path, kv);
    return PRSR_SUCCESS;
}

int32_t prsr_load_db_strings(db_fetch *fetch) {
    int32_t rc = load_alias_ip(fetch);
    if (rc != PRSR_SUCCESS) return rc;
    // The first key of the table is the one that the trace names.
    if (!prsr_build_field(&fetch->fields, model::KEY_HOME)) return PRSR_ERR_ARGUMENT;
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS,
               "prsr_fetch_db_config: name of the TALVEN_HOME key = %s", fetch->fields.path.text);
    rc = prsr_load_fields(&fetch->fields, STRING_FIELDS, fetch->record.cfg);
    if (rc != PRSR_SUCCESS) return rc;
    return load_policy(fetch);
}

// ---- Domain, flag and environment ---------------------------------------------------------------

// The domain is the one field whose lack of memory is no failure: it stays null, without a message.
static int32_t load_domain(db_fetch *fetch) {
    prsr_field_reader *fields = &fetch->fields;
    if (!prsr_build_field(fields, model::KEY_DOMAIN)) return PRSR_ERR_ARGUMENT;
    if (prsr_open_reported(fields->reader, fields->path.text, &fetch->key) != KVTC_SUCCESS) {
        return PRSR_SUCCESS;
    }
    (void)prsr_read_field(fields);  // an unreadable value has been reported and is ""
    const uint32_t length = fields->value.length();
    auto *copy = static_cast<char *>(tmem_allocm(fetch->ctx->mem, length + 1));
    if (copy != nullptr) memcpy(copy, fields->value.buffer, length);
    fetch->record.cfg->domain = copy;
    fetch->key.close();
    return PRSR_SUCCESS;
}

static int32_t load_enabled(db_fetch *fetch) {
    if (!prsr_build_field(&fetch->fields, model::KEY_ENABLED)) return PRSR_ERR_ARGUMENT;
    const prsr_reader &reader = fetch->fields.reader;
    const char *path = fetch->fields.path.text;
    void *trc = fetch->ctx->trc;
    trcdprintf(trc, TRCD_PROGRESS, "prsr_fetch_db_config: db_key = %s, key_name = %s",
               fetch->db_key.text, path);
    if (prsr_open_reported(reader, path, &fetch->key) != KVTC_SUCCESS) return PRSR_SUCCESS;

    // The trace shows the whole value, with or without a zero byte.
    char buffer[VALUE_CAPACITY + 1];
    prsr_value value{buffer, sizeof buffer};
    const int32_t kv = prsr_read_value(fetch->key, &value);
    trcdprintf(trc, TRCD_PROGRESS, "prsr_fetch_db_config: value size is : %d",
               static_cast<int>(value.size));
    if (kv == KVTC_SUCCESS) {
        const char *word = value.text();
        trcdprintf(trc, TRCD_PROGRESS, "prsr_fetch_db_config: value is : %s", word);
        fetch->record.cfg->enabled = prsr_parse_enabled(word);
    } else {
        reader.report("kvtc_get_value", path, kv);
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

int32_t prsr_load_db_settings(db_fetch *fetch) {
    int32_t rc = load_domain(fetch);
    if (rc == PRSR_SUCCESS) rc = load_enabled(fetch);
    if (rc != PRSR_SUCCESS) return rc;
    return prsr_load_fields(&fetch->fields, ENVIRONMENT_FIELD, fetch->record.cfg);
}
