// The clock of the day of one process, which a signal steps.
#pragma once

#include <cstdint>

namespace keyview::test {

// SIGUSR1 steps the clock of the day an hour ahead, SIGUSR2 an hour back.
void take_clock_steps();

// The clock that no step changes, the same in all processes of the machine.
int64_t monotonic_ns();

}  // namespace keyview::test
