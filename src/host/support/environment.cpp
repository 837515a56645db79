// Variables of the environment.
#include "host/support/environment.h"

#include <charconv>
#include <cstdlib>

#include "host/support/error.h"

namespace keyview::host {

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

}  // namespace keyview::host
