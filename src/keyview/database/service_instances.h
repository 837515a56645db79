// The instances that a service names, as two lists of its record.
#pragma once

#include "keyview/database/child_load.h"

constexpr char FILL_SERVICE[] = "prsr_fill_service";

// Fills both lists. *any becomes whether the service names any instance.
[[nodiscard]] int32_t prsr_load_service_instances(child_load *load, prsr_srv_cfg *srv, bool *any);
