// The wait of a call for a lock, reported to whoever observes it.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "host/if/keyview_registry.h"
#include "host/registry/backend.h"
#include "host/support/unique.h"

namespace keyview::host {

// Reports the waits of this thread to a callback; null ends that.
void observe_waits(keyview_wait_callback callback, void *arg) noexcept;

// A wait for a lock, reported while it lasts.
class reported_wait : unique {
  public:
    // The name must outlive the wait.
    reported_wait(wait_limit limit, std::string_view name) : limit_(limit), name_(name) {}
    ~reported_wait() { note(""); }

    // Whether it is time to look for the holder: not during a short wait, and not often.
    bool due();

    // "" if the holder is not known.
    void note(const std::string &holder);

  private:
    wait_limit limit_;
    std::string_view name_;
    std::string holder_;
    std::chrono::steady_clock::time_point next_ = std::chrono::steady_clock::now() + FIRST;
    static constexpr std::chrono::milliseconds FIRST{300}, PAUSE{1000};
};

}  // namespace keyview::host
