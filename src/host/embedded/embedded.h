// A registry on this machine: keys in LMDB, locks on a file beside them.
#pragma once

#include "host/registry/backend_kind.h"

namespace keyview::host {

extern const backend_kind EMBEDDED_KIND;  // of the URLs lmdb:<directory>

// See diagnose_backend.
void diagnose_embedded(const std::string &url, const diagnosis_sink &sink);

}  // namespace keyview::host
