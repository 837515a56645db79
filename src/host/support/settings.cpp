// Settings of the kit.
#include "host/support/settings.h"

#include <atomic>
#include <charconv>
#include <cstdlib>

#include "host/registry/backend.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

static constexpr uint32_t USUAL_WAIT_S = 60;
static constexpr uint32_t LONGEST_WAIT_S = 86400;

static std::atomic<int64_t> chosen_wait_ms{-1};

// Guarded by fork_mutex().
static std::string &chosen_url() {
    static auto &url = *new std::string;
    return url;
}

std::string environment_text(const char *variable) {
    const char *text = secure_getenv(variable);
    return text == nullptr ? "" : text;
}

uint32_t environment_number(const char *variable, uint32_t fallback, uint32_t most) {
    std::string text = environment_text(variable);
    if (text.empty()) return fallback;
    uint32_t number = 0;
    const char *end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc() && stop == end && number <= most) return number;
    throw host_error(failure::usage, std::string(variable) + " is '" + text +
                                         "': it must be a whole number from 0 to " +
                                         std::to_string(most));
}

void choose_registry(const std::string &url) {
    std::lock_guard guard(fork_mutex());
    chosen_url() = url;
}

void choose_lock_wait(int64_t wait_ms) {
    chosen_wait_ms.store(wait_ms);
}

std::string registry_url() {
    std::string url;
    {
        std::lock_guard guard(fork_mutex());
        url = chosen_url();
    }
    if (url.empty()) url = environment_text("KEYVIEW_REGISTRY");
    if (!url.empty()) return url;
    throw host_error(
        failure::usage,
        "no registry is chosen: set KEYVIEW_REGISTRY to its URL, for example to lmdb:/var/lib/keyview");
}

uint32_t lock_wait_ms() {
    int64_t chosen = chosen_wait_ms.load();
    if (chosen >= 0) return static_cast<uint32_t>(chosen);
    return environment_number("KEYVIEW_LOCK_WAIT", USUAL_WAIT_S, LONGEST_WAIT_S) * 1000;
}

}  // namespace keyview::host
