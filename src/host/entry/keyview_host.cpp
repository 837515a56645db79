// The functions of keyview_host.h.
#include "host/if/keyview_host.h"

#include "host/entry/backends.h"
#include "host/registry/lock_wait.h"
#include "host/support/last_error.h"
#include "host/support/trace_sink.h"

using namespace keyview::host;

static constexpr int64_t LONGEST_WAIT_MS = 86400000;

extern "C" {

int32_t keyview_host_set_registry(const char *url) {
    return at_border([&] {
        std::string chosen = url == nullptr ? "" : url;
        if (!chosen.empty()) check_registry_url(chosen);
        choose_registry(chosen);
        return 0;
    });
}

int32_t keyview_host_set_lock_wait(int64_t wait_ms) {
    if (wait_ms > LONGEST_WAIT_MS) {
        return fail(BAD_ARGUMENT, {"a lock is waited for 86400000 milliseconds at most"});
    }
    choose_lock_wait(wait_ms);
    return 0;
}

int64_t keyview_host_lock_wait(void) {
    int64_t wait_ms = -1;
    (void)at_border([&] {
        wait_ms = lock_wait_ms();
        return 0;
    });
    return wait_ms;
}

int32_t keyview_host_set_trace(const char *sink) {
    return at_border([&] {
        set_trace_sink(sink == nullptr ? "none" : sink);
        return 0;
    });
}

int32_t keyview_host_set_trace_level(int32_t level) {
    set_trace_level(level);
    return 0;
}

const char *keyview_host_last_error(void) {
    return thread_failure().text;
}

int32_t keyview_host_last_error_kind(void) {
    return static_cast<int32_t>(thread_failure().kind);
}

}  // extern "C"
