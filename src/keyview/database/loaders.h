// The loaders of the instances and services of a database's record. They run under the lock of the
// fetch and take none of their own; ctx is live.
#pragma once

#include "keyview/core/context.h"

// Loads one instance.
//
// db_key     path of the database's key
// inst_slot  out, the record; null or untouched if there is none, else the caller frees it, on
//            failure as well
// key_name   the instance's element, as the enumeration delivered it
//
// Returns PRSR_ERR_REGISTRY if the instance's own name cannot be read; PRSR_ERR_ARGUMENT if a path
// does not fit; PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_fill_instance(prsr_ctx *ctx, const char *db_key,
                                         prsr_inst_cfg **inst_slot, const char *key_name);

// Frees an instance's record, complete or not. inst is not null.
void prsr_free_instance(void *mem, prsr_inst_cfg *inst);

// Loads one service: as prsr_fill_instance. dbname is the folded name of the database.
//
// Returns PRSR_ERR_REGISTRY also if an own name or a type of its instances cannot be read.
[[nodiscard]] int32_t prsr_fill_service(prsr_ctx *ctx, const char *dbname, const char *dbkey,
                                        prsr_srv_cfg **srv_slot, const char *srvname);

// Frees a service's record, complete or not. srv is not null.
void prsr_free_service(void *mem, prsr_srv_cfg *srv);
