// The latest failure of each thread, as a code and a text for users, and the function that
// converts exceptions to such failures.
#pragma once

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string_view>

#include "host/if/keyview_registry.h"
#include "host/support/error.h"

namespace keyview::host {

// Codes of the kit for failures that the contract of an operation does not define.
enum : int32_t {
    FAILED = 1,         // the registry or the lock service failed
    BAD_ARGUMENT = 2,   // an argument cannot be used: a handle, a null pointer, a setting
    NAME_TOO_LONG = 3,  // a name does not fit into the caller's buffer
    LOCK_FAILED = 5,    // a lock was not granted, or lost, or is not held
    NO_MEMORY = 6,
};

// All zero before the first failure. Texts are cut to the size of the callers' buffers.
struct last_failure {
    int32_t code;
    failure kind;
    char text[1024];
};

last_failure &thread_failure() noexcept;

// Receives the text of each failure::content of this thread from now on, until it is null.
void observe_damage(keyview_failure_callback callback, void *arg) noexcept;

// Stores the text, joined from its pieces, as the thread's latest failure; returns the code.
int32_t fail(int32_t code, std::initializer_list<std::string_view> pieces) noexcept;

// The same for an exception; the code of a host_error is that of its kind.
[[gnu::cold]] int32_t fail(const std::exception &error) noexcept;

// Runs the body of a C operation; an exception becomes the thread's latest failure.
template <typename work>
[[nodiscard]] int32_t at_border(work &&body) {
    try {
        return body();
    } catch (const std::exception &error) {
        return fail(error);
    }
}

}  // namespace keyview::host
