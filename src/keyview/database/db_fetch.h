// One fetch of a database's record: what record.cpp, record_fields.cpp and record_children.cpp work
// with.
#ifndef KEYVIEW_DATABASE_DB_FETCH_H
#define KEYVIEW_DATABASE_DB_FETCH_H

#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/core/records.h"
#include "keyview/core/registry.h"

constexpr char FETCH_DB[] = "prsr_fetch_db_config";

// Read upwards, the members are the order of release: the lock goes first, then the record, then
// the key that is still open, then the working storage.
struct db_fetch {
    db_fetch(void *status, prsr_ctx *owner)
        : ctx(owner),
          dbname(owner),
          db_key(owner->mem),
          field_key(owner->mem),
          value_buffer(owner->mem),
          subkey(owner->mem),
          key(owner->reg),
          record(status, owner),
          lock(owner) {}

    [[nodiscard]] prsr_reader reader() const { return {ctx, FETCH_DB}; }
    [[nodiscard]] void *alloc(size_t size) const { return prsr_alloc(ctx, FETCH_DB, size); }

    prsr_ctx *ctx;
    prsr_name dbname;
    prsr_block db_key;
    prsr_path_block field_key;  // a key below the database
    prsr_block value_buffer;
    prsr_block subkey;  // NAME_CAPACITY bytes
    prsr_value value;
    prsr_key key;  // the one key that is open
    prsr_record<prsr_cfg, prsr_release_db_config> record;
    prsr_held_lock lock;
};

// Makes field_key the key of this element, or path, below the database. False if it does not fit.
[[nodiscard]] bool prsr_build_db_field(db_fetch *fetch, std::string_view element);

// The parts of the record, in reading order.
[[nodiscard]] int32_t prsr_load_db_strings(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_instances(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_services(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_domain(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_enabled(db_fetch *fetch);
[[nodiscard]] int32_t prsr_load_db_env(db_fetch *fetch);

#endif
