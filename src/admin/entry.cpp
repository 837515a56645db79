// See entry.h.
#include "admin/entry.h"

namespace keyview::admin {

using host::failure;
using host::host_error;

status status_of(failure kind) {
    switch (kind) {
        case failure::usage:
            return status::usage;
        case failure::not_found:
            return status::not_found;
        case failure::registry:
            return status::registry;
        case failure::lock:
            return status::lock;
        case failure::changed:
            return status::changed;
        case failure::denied:
            return status::denied;
        case failure::content:
            return status::content;
        case failure::internal:
            break;
    }
    return status::internal;
}

host::backend open_if_there(const std::string &url) {
    try {
        return host::open_backend(url, host::open_mode::existing);
    } catch (const host_error &error) {
        if (error.kind != failure::not_found) throw;
        return {};
    }
}

host::backend open_present() {
    host::backend registry = open_if_there(host::registry_url());
    if (registry.keys) return registry;
    throw host_error(failure::registry, "there is no registry at " + host::registry_url());
}

}  // namespace keyview::admin
