// How long this process waits for a lock.
#pragma once

#include <cstdint>
#include <string_view>

namespace keyview::host {

// The wait in milliseconds: the program's choice, else KEYVIEW_LOCK_WAIT (seconds), else 60 s.
// Throws failure::usage if the variable holds no such number.
uint32_t lock_wait_ms();

// Whether the process that started this one holds a lock, and so waits for this one.
bool is_held_above(std::string_view lock_name);
bool any_held_above();

// How long to wait for a lock of this name: not at all for one that is held above.
uint32_t lock_wait_for(std::string_view lock_name);

// Sets the program's choice; a negative wait returns to the environment.
void choose_lock_wait(int64_t wait_ms);

}  // namespace keyview::host
