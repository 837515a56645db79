// The instances and services of a database's record: one record of its own for each subkey.
#include "keyview/database/db_fetch.h"
#include "keyview/database/loaders.h"
#include "model/roots.h"
#include "platform/trcd.h"

// Enumerates the key of the path for the first time: *count is the number of its subkeys, and the
// key stays open if that is not 0.
static void open_enumeration(db_fetch *fetch, bool show_count, uint32_t *count) {
    const prsr_reader &reader = fetch->fields.reader;
    const char *path = fetch->fields.path.text;
    *count = 0;
    if (prsr_open_reported(reader, path, &fetch->key) != KVTC_SUCCESS) return;

    uint32_t length = 0;
    int32_t last = 0;
    const int32_t kv =
        prsr_next_subkey(fetch->key, fetch->subkey.text, NAME_CAPACITY, &length, &last);
    const uint32_t subkeys = static_cast<uint32_t>(last) + 1;
    if (show_count) {
        trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: Number of Instances = %d",
                   static_cast<int>(subkeys));
    }
    if (kv == KVTC_SUCCESS && last >= 0) {
        *count = subkeys;
        return;
    }
    if (kv != KVTC_SUCCESS && kv != KVTC_ERR_NO_MORE_KEYS) {
        reader.report("kvtc_enum_subkey", path, kv);
    }
    fetch->key.close();
}

// Reads the name of the next subkey. An announced one that is missing ends the fetch.
static int32_t next_subkey(db_fetch *fetch) {
    uint32_t length = 0;
    int32_t unread = 0;
    const int32_t kv =
        prsr_next_subkey(fetch->key, fetch->subkey.text, NAME_CAPACITY, &length, &unread);
    if (kv == KVTC_SUCCESS) return PRSR_SUCCESS;
    fetch->fields.reader.report("kvtc_enum_subkey", fetch->fields.path.text, kv);
    return PRSR_ERR_REGISTRY;
}

// Loads the announced instances, the first one's subkey already read. The record's count grows with
// them, so that a release walks no further than the loads went.
static int32_t load_instances(db_fetch *fetch, uint32_t announced) {
    prsr_cfg *cfg = fetch->record.cfg;
    for (uint32_t slot = 0;; ++slot) {
        cfg->instance_count = slot + 1;
        int32_t rc = prsr_fill_instance(fetch->ctx, fetch->db_key.text, &cfg->instances[slot],
                                        fetch->subkey.text);
        if (rc != PRSR_SUCCESS) {
            trcdprintf(fetch->ctx->trc, TRCD_FAILURE,
                       "prsr_fetch_db_config: prsr_fill_instance failed, rc = %d", rc);
            return rc;
        }
        if (slot + 1 == announced) break;
        rc = next_subkey(fetch);
        if (rc != PRSR_SUCCESS) return rc;
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

// The same for the services.
static int32_t load_services(db_fetch *fetch, uint32_t announced) {
    prsr_cfg *cfg = fetch->record.cfg;
    for (uint32_t slot = 0;; ++slot) {
        cfg->service_count = slot + 1;
        int32_t rc = prsr_fill_service(fetch->ctx, fetch->dbname.text(), fetch->db_key.text,
                                       &cfg->services[slot], fetch->subkey.text);
        if (rc != PRSR_SUCCESS) {
            trcdprintf(fetch->ctx->trc, TRCD_FAILURE,
                       "prsr_fetch_db_config: prsr_fill_service failed, rc = %d", rc);
            return rc;
        }
        if (slot + 1 == announced) break;
        rc = next_subkey(fetch);
        if (rc != PRSR_SUCCESS) return rc;
    }
    fetch->key.close();
    return PRSR_SUCCESS;
}

int32_t prsr_load_db_instances(db_fetch *fetch) {
    if (!prsr_build_field(&fetch->fields, model::KEY_INSTANCE)) return PRSR_ERR_ARGUMENT;
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: Instance KEY = %s\n",
               fetch->fields.path.text);
    fetch->subkey.text = static_cast<char *>(fetch->alloc(NAME_CAPACITY));
    if (fetch->subkey.text == nullptr) return PRSR_ERR_MEMORY;

    uint32_t count = 0;
    open_enumeration(fetch, true, &count);
    if (count == 0) return PRSR_SUCCESS;
    prsr_cfg *cfg = fetch->record.cfg;
    cfg->instances = static_cast<prsr_inst_cfg **>(fetch->alloc(count * sizeof(prsr_inst_cfg *)));
    return cfg->instances != nullptr ? load_instances(fetch, count) : PRSR_ERR_MEMORY;
}

int32_t prsr_load_db_services(db_fetch *fetch) {
    if (!prsr_build_field(&fetch->fields, model::KEY_SERVICE)) return PRSR_ERR_ARGUMENT;
    uint32_t count = 0;
    open_enumeration(fetch, false, &count);
    if (count == 0) return PRSR_SUCCESS;
    prsr_cfg *cfg = fetch->record.cfg;
    cfg->services = static_cast<prsr_srv_cfg **>(fetch->alloc(count * sizeof(prsr_srv_cfg *)));
    return cfg->services != nullptr ? load_services(fetch, count) : PRSR_ERR_MEMORY;
}
