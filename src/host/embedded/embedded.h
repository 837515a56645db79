// A registry on this machine: keys in LMDB, locks on a file beside them.
#ifndef KEYVIEW_HOST_EMBEDDED_EMBEDDED_H
#define KEYVIEW_HOST_EMBEDDED_EMBEDDED_H

#include <string>

#include "host/registry/backend.h"

namespace keyview::host {

backend open_embedded(const std::string &directory, open_mode mode);

// See check_backend.
check_counts check_embedded(const std::string &directory, const damage_sink &damage,
                            const row_sink &sink);

}  // namespace keyview::host

#endif
