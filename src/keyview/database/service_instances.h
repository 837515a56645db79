// The instances that a service names, as two lists of its record.
#ifndef KEYVIEW_DATABASE_SERVICE_INSTANCES_H
#define KEYVIEW_DATABASE_SERVICE_INSTANCES_H

#include "keyview/database/child_load.h"

constexpr char FILL_SERVICE[] = "prsr_fill_service";

// Fills both lists. *any becomes whether the service names any instance.
[[nodiscard]] int32_t prsr_load_service_instances(child_load *load, prsr_srv_cfg *srv, bool *any);

#endif
