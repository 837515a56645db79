// Variables of the environment.
#pragma once

#include <cstdint>
#include <string>

namespace keyview::host {

// A variable's text; "" if it is not set or the program runs with raised rights.
std::string environment_text(const char *variable);

// A variable that holds a whole number from 0 to most; fallback if it is not set or empty. Throws
// failure::usage for any other text.
uint32_t environment_number(const char *variable, uint32_t fallback, uint32_t most);

}  // namespace keyview::host
