// Bounded waiting until another process or thread releases something: short sleeps, an eighth of
// the time waited so far, so that the wait ends soon after its cause, also if the other one was
// killed. A descriptor that becomes readable ends a sleep, and the next ones are short again.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace keyview::host {

class deadline {
  public:
    explicit deadline(uint32_t wait_ms)
        : start_(std::chrono::steady_clock::now()),
          end_(start_ + std::chrono::milliseconds(wait_ms)) {}

    // Sleeps a little; false, at once, if the time is over. What woken_by, of which -1 is none, has
    // to read is dropped.
    bool pause(int woken_by = -1) {
        using std::chrono::microseconds;
        auto now = std::chrono::steady_clock::now();
        if (now >= end_) return false;
        auto part = std::chrono::duration_cast<microseconds>(now - start_) / 8;
        const timespec nap = {0, std::clamp(part, SHORTEST_NAP, LONGEST_NAP).count() * 1000};
        pollfd event = {woken_by, POLLIN, 0};
        if (ppoll(&event, 1, &nap, nullptr) == 1) {
            char dropped[4096];
            if (read(woken_by, dropped, sizeof(dropped)) > 0)
                start_ = std::chrono::steady_clock::now();
        }
        return true;
    }

  private:
    static constexpr std::chrono::microseconds SHORTEST_NAP{50};
    static constexpr std::chrono::microseconds LONGEST_NAP{2000};

    std::chrono::steady_clock::time_point start_;  // of the wait, or of its latest part
    std::chrono::steady_clock::time_point end_;
};

}  // namespace keyview::host
