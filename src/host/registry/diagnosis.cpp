// The inspections that all kinds of registries share.
#include "host/registry/diagnosis.h"

#include <cstdio>

namespace keyview::host {

std::string shown_ms(std::chrono::steady_clock::duration time) {
    char text[32];
    (void)snprintf(text, sizeof(text), "%.1f ms",
                   std::chrono::duration<double, std::milli>(time).count());
    return text;
}

void diagnose_locks(lock_service *locks, const diagnosis_sink &sink) {
    static constexpr uint32_t PATIENCE_MS = 5000;
    diagnose("locks", sink, [&] {
        auto start = std::chrono::steady_clock::now();
        locks->acquire("keyview doctor", lock_mode::exclusive, PATIENCE_MS).reset();
        auto took = std::chrono::steady_clock::now() - start;
        sink({"locks", health::good, "one taken and given back in " + shown_ms(took)});
    });
}

}  // namespace keyview::host
