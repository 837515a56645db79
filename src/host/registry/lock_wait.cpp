// How long this process waits for a lock.
#include "host/registry/lock_wait.h"

#include <atomic>

#include "host/support/environment.h"
#include "model/locks.h"

namespace keyview::host {

static constexpr uint32_t USUAL_WAIT_S = 60;
static constexpr uint32_t LONGEST_WAIT_S = 86400;

static std::atomic<int64_t> chosen_wait_ms{-1};

void choose_lock_wait(int64_t wait_ms) {
    chosen_wait_ms.store(wait_ms);
}

uint32_t lock_wait_ms() {
    int64_t chosen = chosen_wait_ms.load();
    if (chosen >= 0) return static_cast<uint32_t>(chosen);
    return environment_number("KEYVIEW_LOCK_WAIT", USUAL_WAIT_S, LONGEST_WAIT_S) * 1000;
}

bool is_held_above(std::string_view lock_name) {
    return !line_of_lock(environment_text(LOCKS_ABOVE), lock_name).empty();
}

bool any_held_above() {
    return !environment_text(LOCKS_ABOVE).empty();
}

uint32_t lock_wait_for(std::string_view lock_name) {
    return is_held_above(lock_name) ? 0 : lock_wait_ms();
}

}  // namespace keyview::host
