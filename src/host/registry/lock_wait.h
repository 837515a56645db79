// How long this process waits for a lock.
#pragma once

#include <cstdint>

namespace keyview::host {

// The wait in milliseconds: the program's choice, else KEYVIEW_LOCK_WAIT (seconds), else 60 s.
// Throws failure::usage if the variable holds no such number.
uint32_t lock_wait_ms();

// Sets the program's choice; a negative wait returns to the environment.
void choose_lock_wait(int64_t wait_ms);

}  // namespace keyview::host
