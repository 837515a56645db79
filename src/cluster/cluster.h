// A cluster as a kind of registry.
#pragma once

#include <string>

#include "host/registry/backend_kind.h"

namespace keyview::host {

// The export of the module.
extern "C" __attribute__((visibility("default"))) const backend_kind KEYVIEW_BACKEND_KIND;

// See check_backend. No other program has to wait.
check_counts check_cluster(const std::string &url, const damage_sink &damage, const row_sink &sink);

// See diagnose_backend.
void diagnose_cluster(const std::string &url, const diagnosis_sink &sink);

}  // namespace keyview::host
