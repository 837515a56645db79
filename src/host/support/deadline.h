// Bounded waiting until another process or thread releases something: short sleeps, an eighth of
// the time waited so far, so that the wait ends soon after its cause, also if the other one was
// killed.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <thread>

namespace keyview::host {

class deadline {
  public:
    explicit deadline(uint32_t wait_ms)
        : start_(std::chrono::steady_clock::now()),
          end_(start_ + std::chrono::milliseconds(wait_ms)) {}

    // Sleeps a little; false, at once, if the time is over.
    bool pause() {
        auto now = std::chrono::steady_clock::now();
        if (now >= end_) return false;
        auto part = std::chrono::duration_cast<std::chrono::microseconds>(now - start_) / 8;
        std::this_thread::sleep_for(std::clamp(part, SHORTEST_NAP, LONGEST_NAP));
        return true;
    }

  private:
    static constexpr std::chrono::microseconds SHORTEST_NAP{50};
    static constexpr std::chrono::microseconds LONGEST_NAP{2000};

    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point end_;
};

}  // namespace keyview::host
