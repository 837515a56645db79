// The folded names by which the operations on a service reach it.
#pragma once

#include "keyview/core/paths.h"

// Read upwards, the members are the order of release: the database's name goes first.
struct prsr_service_names {
    explicit prsr_service_names(const prsr_ctx *ctx) : service(ctx), database(ctx) {}

    prsr_name service;
    prsr_name database;
};

// Allocates both copies, then folds them and maps the service's. Returns PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_fold_service_names(const prsr_ctx *ctx, const char *function,
                                              const char *dbname, const char *srvname,
                                              prsr_service_names *names);
