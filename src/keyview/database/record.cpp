// Loads the whole configuration of a database into one record, under one shared lock. Only the
// database's key and its own name are mandatory here; any other missing key is reported
// and leaves a field empty.
#include "keyview/database/record.h"

#include "keyview/database/db_fetch.h"
#include "platform/trcd.h"

static int32_t make_record(db_fetch *fetch) {
    auto *cfg = static_cast<prsr_cfg *>(fetch->alloc(sizeof(prsr_cfg)));
    if (cfg == nullptr) return PRSR_ERR_MEMORY;
    fetch->record.cfg = cfg;
    cfg->constant_one = 1;
    tmem_fill_tag(cfg, PRSR_CFG_TAG);
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS,
               "prsr_fetch_db_config:initialized memory for prsr_cfg");
    return PRSR_SUCCESS;
}

static int32_t build_database_key(db_fetch *fetch, const char *dbname) {
    prsr_ctx *ctx = fetch->ctx;
    if (!prsr_alloc_name(ctx, FETCH_DB, dbname, &fetch->dbname)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &fetch->dbname);
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config:length is %d",
               static_cast<int>(DB_ROOT.size() + fetch->dbname.length + 2));
    if (!prsr_join_path(ctx, FETCH_DB, 0, &fetch->db_key, DB_ROOT, fetch->dbname.element())) {
        return PRSR_ERR_MEMORY;
    }
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: DB key is %s", fetch->db_key.text);
    return PRSR_SUCCESS;
}

static int32_t open_database(db_fetch *fetch) {
    const char *path = fetch->db_key.text;
    const int32_t kv = fetch->key.open(path);
    if (kv == KVTC_SUCCESS) return PRSR_SUCCESS;
    if (kv == KVTC_ERR_KEY_NOT_FOUND) {
        trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: %s Key does not exist",
                   path);
        return PRSR_ERR_NO_DATABASE;
    }
    fetch->fields.reader.report("kvtc_open_key", path, kv);
    return PRSR_ERR_REGISTRY;
}

static int32_t load_sp_name(db_fetch *fetch) {
    prsr_cfg *cfg = fetch->record.cfg;
    const int32_t rc = prsr_load_name(fetch->fields.reader, fetch->db_key.text, &fetch->key,
                                      fetch->dbname.length, &cfg->sp_name);
    if (rc != PRSR_SUCCESS) return rc;
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS,
               "prsr_fetch_db_config: Database service provider(sp) name is %s", cfg->sp_name);
    fetch->key.close();
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: opened the DB key %s\n",
               fetch->db_key.text);
    return PRSR_SUCCESS;
}

static int32_t alloc_buffers(db_fetch *fetch) {
    if (!prsr_alloc_field_path(&fetch->fields) || !prsr_alloc_field_value(&fetch->fields)) {
        return PRSR_ERR_MEMORY;
    }
    return prsr_start_fields(&fetch->fields, fetch->db_key.text) ? PRSR_SUCCESS : PRSR_ERR_ARGUMENT;
}

// The reads under the lock, in the order of the trace.
static int32_t load_database(db_fetch *fetch) {
    int32_t rc = open_database(fetch);
    if (rc == PRSR_SUCCESS) rc = load_sp_name(fetch);
    if (rc == PRSR_SUCCESS) rc = alloc_buffers(fetch);
    if (rc == PRSR_SUCCESS) rc = prsr_load_db_strings(fetch);
    if (rc == PRSR_SUCCESS) rc = prsr_load_db_instances(fetch);
    if (rc == PRSR_SUCCESS) rc = prsr_load_db_services(fetch);
    if (rc == PRSR_SUCCESS) rc = prsr_load_db_settings(fetch);
    return rc;
}

int32_t prsr_fetch_db_config(void *status, prsr_ctx *ctx, const char *dbname,
                             prsr_cfg **cfg) noexcept {
    *cfg = nullptr;
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    db_fetch fetch(status, ctx);
    int32_t rc = make_record(&fetch);
    if (rc != PRSR_SUCCESS) return rc;
    rc = build_database_key(&fetch, dbname);
    if (rc != PRSR_SUCCESS) return rc;
    rc = prsr_lock_keyview(status, ctx, fetch.dbname.text(), LOCK_SHARED, &fetch.lock.token);
    if (rc != PRSR_SUCCESS) return rc;
    rc = load_database(&fetch);
    if (rc == PRSR_SUCCESS) *cfg = fetch.record.take();
    return rc;
}
