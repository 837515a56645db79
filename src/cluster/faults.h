// Protections that a test takes away, to prove that it notices. The product is compiled without
// KEYVIEW_CLUSTER_FAULTS: it contains no such switch.
#pragma once

#ifdef KEYVIEW_CLUSTER_FAULTS
#include <functional>
#endif

namespace keyview::host {

#ifdef KEYVIEW_CLUSTER_FAULTS
struct planted_faults {
    bool set_unfenced = false;          // a set does not require that its lock is held
    bool grant_unchecked = false;       // a waiter does not require that its own key exists
    bool lose_keep_alives = false;      // calls that gRPC never ends
    std::function<void()> before_step;  // of a change set in pieces; throws to stop it

    void step() const {
        if (before_step) before_step();
    }
};
inline planted_faults faults;
#else
struct no_faults {
    bool set_unfenced = false;
    bool grant_unchecked = false;
    bool lose_keep_alives = false;
    static void step() {}
};
constexpr no_faults faults;
#endif

}  // namespace keyview::host
