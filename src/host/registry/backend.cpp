// From the URL of a registry to its keys and locks.
#include "host/registry/backend.h"

#include "host/registry/backend_kind.h"

namespace keyview::host {

void check_registry_url(const std::string &url) {
    kind_of(url).check_url(url);
}

std::vector<lock_use> lock_service::users(const std::vector<std::string> &) {
    throw host_error(failure::usage, "telling who holds a lock is not supported by this registry");
}

backend open_backend(const std::string &url, open_mode mode) {
    return kind_of(url).open(url, mode);
}

check_counts check_backend(const std::string &url, const damage_sink &damage,
                           const row_sink &sink) {
    return kind_of(url).check(url, damage, sink);
}

}  // namespace keyview::host
