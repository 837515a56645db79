// One fetch of a database's record: the state that record.cpp, record_fields.cpp and
// record_children.cpp share.
#pragma once

#include "keyview/core/fields.h"
#include "keyview/core/locks.h"
#include "keyview/core/records.h"

constexpr char FETCH_DB[] = "prsr_fetch_db_config";

// Read upwards, the members are the order of release: the lock goes first, then the record, then
// the key that is still open, then the working storage.
struct db_fetch {
    db_fetch(void *status, prsr_ctx *owner)
        : ctx(owner),
          dbname(owner),
          db_key(owner->mem),
          fields(owner, FETCH_DB, &key),
          subkey(owner->mem),
          key(owner->reg),
          record(status, owner),
          lock(owner) {}

    [[nodiscard]] void *alloc(size_t size) const { return prsr_alloc(ctx, FETCH_DB, size); }

    prsr_ctx *ctx;
    prsr_name dbname;
    prsr_block db_key;
    prsr_field_reader fields;
    prsr_block subkey;  // NAME_CAPACITY bytes
    prsr_key key;       // the one key that is open
    prsr_record<prsr_cfg, prsr_release_db_config> record;
    prsr_held_lock lock;
};

// The parts of the record, in reading order.
[[nodiscard]] int32_t prsr_load_db_strings(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_instances(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_services(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_settings(db_fetch *fetch);  // domain, flag, environment
