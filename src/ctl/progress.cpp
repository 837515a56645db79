// See progress.h.
#include "ctl/progress.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <system_error>

#include "ctl/output.h"

namespace keyview::ctl {

using std::chrono::seconds;
using std::chrono::steady_clock;

static constexpr seconds FIRST{1}, LONGEST{60};

void progress::start() noexcept {
    if (!to_people_ || thread_.joinable()) return;
    stopped_ = false;
    // Signals are for the thread that works, which may hold them back.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        thread_ = std::thread([this] { report_loop(); });
    } catch (const std::system_error &) {
        stopped_ = true;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void progress::stop() noexcept {
    if (!thread_.joinable()) return;
    {
        std::lock_guard guard(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void progress::step(const std::string &text) {
    print_step(command_ + " " + text);
    std::lock_guard guard(mutex_);
    step_ = text;
}

void progress::report_loop() {
    std::unique_lock guard(mutex_);
    seconds pause = FIRST;
    while (!changed_.wait_for(guard, pause, [this] { return stopped_; })) {
        auto since = std::chrono::duration_cast<seconds>(steady_clock::now() - begun_);
        print_remark(command_ + " goes on for " + std::to_string(since.count()) + " s" +
                     (step_.empty() ? "" : ": it " + step_));
        pause = std::min(since, LONGEST);
    }
}

}  // namespace keyview::ctl
