// The defaults of a lock service.
#include "host/registry/backend.h"

#include <algorithm>
#include <chrono>

#include "host/registry/lock_wait.h"

namespace keyview::host {

// All of them together are waited for as long as one may be.
std::vector<std::shared_ptr<held_lock>> lock_service::acquire_each(
    const std::vector<std::string> &names, wait_limit limit) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    auto end = steady_clock::now() + milliseconds(limit.ms());
    std::vector<std::shared_ptr<held_lock>> held;
    held.reserve(names.size());
    for (const std::string &name : names) {
        auto left = std::chrono::duration_cast<milliseconds>(end - steady_clock::now()).count();
        if (is_held_above(name)) left = 0;
        auto left_ms = static_cast<uint32_t>(std::max<int64_t>(left, 0));
        held.push_back(acquire(name, lock_mode::exclusive, limit.within(left_ms)));
    }
    return held;
}

std::vector<lock_use> lock_service::users(const std::vector<std::string> &) {
    throw host_error(failure::usage,
                     "listing the users of locks is not supported by this registry");
}

}  // namespace keyview::host
