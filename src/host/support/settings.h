// Settings of the kit: the program's choice, else the environment's, else a default.
#ifndef KEYVIEW_HOST_SUPPORT_SETTINGS_H
#define KEYVIEW_HOST_SUPPORT_SETTINGS_H

#include <cstdint>
#include <string>

#include "host/support/export.h"

namespace keyview::host {

// A variable of the environment; "" if it is not set or the program runs with raised rights.
KEYVIEW_HOST_API std::string environment_text(const char *variable);

// A variable that holds a whole number from 0 to most; fallback if it is not set or empty. Throws
// failure::usage for any other text.
KEYVIEW_HOST_API uint32_t environment_number(const char *variable, uint32_t fallback,
                                             uint32_t most);

// The program's choices. An empty URL, or a negative wait, goes back to the environment.
void choose_registry(const std::string &url);
void choose_lock_wait(int64_t wait_ms);

}  // namespace keyview::host

#endif
