// One load of a service: what service_loader.cpp and service_instances.cpp work with.
#ifndef KEYVIEW_DATABASE_SERVICE_LOAD_H
#define KEYVIEW_DATABASE_SERVICE_LOAD_H

#include <string_view>

#include "keyview/core/paths.h"
#include "keyview/core/registry.h"

constexpr char FILL_SERVICE[] = "prsr_fill_service";

struct service_load {
    service_load(prsr_ctx *owner, const char *database, std::string_view service)
        : ctx(owner),
          reader(owner, FILL_SERVICE),
          dbname(database),
          srvname(service),
          value_buffer(owner->mem),
          field_key(owner->mem),
          srv_key(owner->mem) {}

    prsr_ctx *ctx;
    prsr_reader reader;
    const char *dbname;  // folded
    std::string_view srvname;
    prsr_srv_cfg *srv = nullptr;  // not owned: it belongs to its slot
    prsr_block value_buffer;
    prsr_path_block field_key;  // a key below the service
    prsr_path_block srv_key;
    prsr_value value;
};

// Makes field_key the key of this element below the service. False if it does not fit.
[[nodiscard]] bool prsr_build_service_field(service_load *load, std::string_view element);

// Fills the two lists of instances. *any tells whether the service names any instance.
[[nodiscard]] int32_t prsr_load_service_instances(service_load *load, bool *any);

#endif
