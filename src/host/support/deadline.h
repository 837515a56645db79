// Bounded waiting for what another process or thread has to give up: short sleeps that grow, so
// that the wait ends soon after its cause, also if the other one was killed.
#ifndef KEYVIEW_HOST_SUPPORT_DEADLINE_H
#define KEYVIEW_HOST_SUPPORT_DEADLINE_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <thread>

namespace keyview::host {

class deadline {
  public:
    explicit deadline(uint32_t wait_ms)
        : end_(std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms)) {}

    // Sleeps a little; false, at once, if the time is over.
    bool pause() {
        if (std::chrono::steady_clock::now() >= end_) return false;
        std::this_thread::sleep_for(nap_);
        nap_ = std::min(nap_ * 2, LONGEST_NAP);
        return true;
    }

  private:
    static constexpr std::chrono::microseconds LONGEST_NAP{2000};

    std::chrono::steady_clock::time_point end_;
    std::chrono::microseconds nap_{100};
};

}  // namespace keyview::host

#endif
