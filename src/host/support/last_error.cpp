// The latest failure of each thread.
#include "host/support/last_error.h"

#include <algorithm>
#include <cstring>

namespace keyview::host {

last_failure &thread_failure() noexcept {
    static thread_local last_failure latest;
    return latest;
}

int32_t fail(int32_t code, std::initializer_list<std::string_view> pieces) noexcept {
    last_failure &latest = thread_failure();
    latest.code = code;
    size_t used = 0;
    for (std::string_view piece : pieces) {
        size_t taken = std::min(piece.size(), sizeof(latest.text) - 1 - used);
        memcpy(latest.text + used, piece.data(), taken);
        used += taken;
    }
    latest.text[used] = '\0';
    return code;
}

int32_t code_of(failure kind) noexcept {
    switch (kind) {
        case failure::usage:
            return BAD_ARGUMENT;
        case failure::lock:
            return LOCK_FAILED;
        default:
            return FAILED;
    }
}

}  // namespace keyview::host
