// The observers of waits.
#include "host/registry/reported_wait.h"

#include "host/registry/lock_wait.h"

namespace keyview::host {

namespace {
struct wait_observer {
    keyview_wait_callback callback = nullptr;
    void *arg = nullptr;
};
}  // namespace

static thread_local wait_observer observer_of_waits;

void observe_waits(keyview_wait_callback callback, void *arg) noexcept {
    observer_of_waits = {callback, arg};
}

static void report_wait(std::string_view name, std::string_view holder) {
    const wait_observer &here = observer_of_waits;
    if (here.callback == nullptr) return;
    here.callback(here.arg, {name.data(), name.size()}, {holder.data(), holder.size()});
}

const wait_rules OWN_WAIT_RULES = {lock_wait_for, report_wait};

bool reported_wait::due() {
    auto now = std::chrono::steady_clock::now();
    if (now < next_) return false;
    next_ = now + PAUSE;
    return true;
}

void reported_wait::note(const std::string &holder) {
    if (holder == holder_) return;
    limit_.report(name_, holder);
    holder_ = holder;
}

}  // namespace keyview::host
