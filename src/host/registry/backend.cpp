// From the URL of a registry to its keys and locks.
#include "host/registry/backend.h"

#include <string_view>

#include "host/embedded/embedded.h"
#include "host/support/error.h"

namespace keyview::host {

static constexpr std::string_view EMBEDDED = "lmdb:";

void check_registry_url(const std::string &url) {
    if (url.compare(0, EMBEDDED.size(), EMBEDDED) == 0 && url.size() > EMBEDDED.size()) return;
    throw host_error(failure::usage, "'" + url + "' is no URL of a registry: use lmdb:<directory>");
}

backend open_backend(const std::string &url, open_mode mode) {
    check_registry_url(url);
    return open_embedded(url.substr(EMBEDDED.size()), mode);
}

check_counts check_backend(const std::string &url, const damage_sink &damage,
                           const row_sink &sink) {
    check_registry_url(url);
    return check_embedded(url.substr(EMBEDDED.size()), damage, sink);
}

}  // namespace keyview::host
