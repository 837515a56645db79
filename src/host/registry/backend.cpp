// The defaults of a lock service.
#include "host/registry/backend.h"

namespace keyview::host {

std::vector<lock_use> lock_service::users(const std::vector<std::string> &) {
    throw host_error(failure::usage,
                     "listing the users of locks is not supported by this registry");
}

}  // namespace keyview::host
