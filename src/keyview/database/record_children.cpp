// The instances and services of a database's record: one record of its own for each subkey.
#include "keyview/database/db_fetch.h"
#include "keyview/database/loaders.h"
#include "platform/trcd.h"

// Loads one record of an enumeration into its slot.
using record_loader = int32_t (*)(db_fetch *fetch, uint32_t slot);

static int32_t load_instance(db_fetch *fetch, uint32_t slot) {
    const int32_t rc = prsr_fill_instance(fetch->ctx, fetch->db_key.text,
                                          &fetch->record.cfg->instances[slot], fetch->subkey.text);
    if (rc != PRSR_SUCCESS) {
        trcdprintf(fetch->ctx->trc, TRCD_FAILURE,
                   "prsr_fetch_db_config: prsr_fill_instance failed, rc = %d", rc);
    }
    return rc;
}

static int32_t load_service(db_fetch *fetch, uint32_t slot) {
    const int32_t rc = prsr_fill_service(fetch->ctx, fetch->dbname.text(), fetch->db_key.text,
                                         &fetch->record.cfg->services[slot], fetch->subkey.text);
    if (rc != PRSR_SUCCESS) {
        trcdprintf(fetch->ctx->trc, TRCD_FAILURE,
                   "prsr_fetch_db_config: prsr_fill_service failed, rc = %d", rc);
    }
    return rc;
}

// Loads count records, the first with the subkey name at hand. filled, the record's count, grows
// with them: a release walks no further, whatever the enumeration promised. A promised subkey that
// is missing now ends the fetch.
static int32_t load_records(db_fetch *fetch, const char *path, uint32_t count, uint32_t *filled,
                            record_loader load) {
    for (uint32_t slot = 0;; ++slot) {
        *filled = slot + 1;
        const int32_t rc = load(fetch, slot);
        if (rc != PRSR_SUCCESS) return rc;
        if (slot + 1 == count) return PRSR_SUCCESS;

        uint32_t length = 0;
        int32_t unread = 0;
        const int32_t kv =
            prsr_next_subkey(fetch->key, fetch->subkey.text, NAME_CAPACITY, &length, &unread);
        if (kv != KVTC_SUCCESS) {
            fetch->reader().report("kvtc_enum_subkey", path, kv);
            return PRSR_ERR_REGISTRY;
        }
    }
}

// Enumerates the key in field_key for the first time: *count is the number of its subkeys, and the
// key stays open if that is not 0.
static void open_enumeration(db_fetch *fetch, bool show_count, uint32_t *count) {
    const prsr_reader reader = fetch->reader();
    const char *path = fetch->field_key.text;
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

int32_t prsr_load_db_instances(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_INSTANCE)) return PRSR_ERR_ARGUMENT;
    const char *path = fetch->field_key.text;
    trcdprintf(fetch->ctx->trc, TRCD_PROGRESS, "prsr_fetch_db_config: Instance KEY = %s\n", path);
    fetch->subkey.text = static_cast<char *>(fetch->alloc(NAME_CAPACITY));
    if (fetch->subkey.text == nullptr) return PRSR_ERR_MEMORY;

    uint32_t count = 0;
    open_enumeration(fetch, true, &count);
    if (count == 0) return PRSR_SUCCESS;
    prsr_cfg *cfg = fetch->record.cfg;
    cfg->instances = static_cast<prsr_inst_cfg **>(fetch->alloc(count * sizeof(prsr_inst_cfg *)));
    if (cfg->instances == nullptr) return PRSR_ERR_MEMORY;
    const int32_t rc = load_records(fetch, path, count, &cfg->instance_count, load_instance);
    if (rc == PRSR_SUCCESS) fetch->key.close();
    return rc;
}

int32_t prsr_load_db_services(db_fetch *fetch) {
    if (!prsr_build_db_field(fetch, model::KEY_SERVICE)) return PRSR_ERR_ARGUMENT;
    uint32_t count = 0;
    open_enumeration(fetch, false, &count);
    if (count == 0) return PRSR_SUCCESS;
    prsr_cfg *cfg = fetch->record.cfg;
    cfg->services = static_cast<prsr_srv_cfg **>(fetch->alloc(count * sizeof(prsr_srv_cfg *)));
    if (cfg->services == nullptr) return PRSR_ERR_MEMORY;
    const int32_t rc =
        load_records(fetch, fetch->field_key.text, count, &cfg->service_count, load_service);
    if (rc == PRSR_SUCCESS) fetch->key.close();
    return rc;
}
