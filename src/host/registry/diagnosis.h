// Findings about a registry and its environment, for its administrator.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "host/registry/backend.h"

namespace keyview::host {

enum class health { good, doubtful, bad };

struct diagnosis {
    std::string subject;  // "member 10.0.0.1:2379"
    health state;
    std::string text;
};

using diagnosis_sink = std::function<void(const diagnosis &found)>;

// Acquires and releases a lock without other users, and reports how long that took.
void diagnose_locks(lock_service *locks, const diagnosis_sink &sink);

// Runs one inspection; its exception becomes a finding.
template <typename look>
void diagnose(const std::string &subject, const diagnosis_sink &sink, look &&run) {
    try {
        run();
    } catch (const host_error &error) {
        sink({subject, health::bad, error.what()});
    }
}

// "1.3 ms".
std::string shown_ms(std::chrono::steady_clock::duration time);

}  // namespace keyview::host
