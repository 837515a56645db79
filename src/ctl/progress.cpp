// See progress.h.
#include "ctl/progress.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <system_error>

#include "admin/registry.h"
#include "ctl/output.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "model/locks.h"

namespace keyview::ctl {

using std::chrono::steady_clock;

static constexpr std::chrono::seconds FIRST_REPORT{1}, LONGEST_PAUSE{60};

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

static std::string wait_text(const std::string &lock, const std::string &holder) {
    const lock_holder known = holder_in_parts(holder);
    const std::string what = lock.empty()        ? "the write lock"
                             : lock == ALL_LOCKS ? "one of the locks"
                                                 : "the lock " + lock;
    return "waits for " + std::string(known.process) + ", which holds " + what +
           (known.since.empty() ? "" : " since " + std::string(known.since));
}

void progress::waits(const std::string &lock, const std::string &holder) {
    const std::string text = holder.empty() ? "" : wait_text(lock, holder);
    if (!text.empty()) print_step(command_ + " " + text);
    std::lock_guard guard(mutex_);
    wait_ = text;
}

void progress::count(uint64_t done, uint64_t total) {
    std::lock_guard guard(mutex_);
    done_ = done;
    total_ = total;
}

// "75 %, 3 of 4, 12/s, 1 s left", or "52000 keys read, 25000/s"; "" if there is nothing to count.
std::string progress::amount_done(double time_s) const {
    constexpr uint64_t FEW_KEYS = 1000;
    uint64_t keys = admin::keys_read;
    uint64_t done = total_ > 0 ? done_ : keys;
    if (total_ == 0 && keys < FEW_KEYS) return "";
    double rate = static_cast<double>(done) / std::max(time_s, 0.001);
    char speed[32];
    (void)snprintf(speed, sizeof speed, rate < 10 ? ", %.1f/s" : ", %.0f/s", rate);  // it fits
    if (total_ == 0) return ", " + std::to_string(keys) + " keys read" + speed;
    std::string out = ", " + std::to_string(done * 100 / total_) + " %, " + std::to_string(done) +
                      " of " + std::to_string(total_) + speed;
    if (done == 0) return out;
    auto left = static_cast<uint64_t>(static_cast<double>(total_ - done) / rate);
    return out + ", " + std::to_string(left) + " s left";
}

std::string progress::current_line(double time_s) const {
    return command_ + " goes on for " + std::to_string(static_cast<uint64_t>(time_s)) + " s" +
           amount_done(time_s) + (step_.empty() ? "" : ": it " + (wait_.empty() ? step_ : wait_));
}

void progress::report_loop() {
    constexpr std::chrono::milliseconds FRAME{200};
    const bool moves = is_terminal(STDERR_FILENO);
    std::unique_lock guard(mutex_);
    std::chrono::milliseconds pause = FIRST_REPORT;
    while (!changed_.wait_for(guard, pause, [this] { return stopped_; })) {
        std::chrono::duration<double> since = steady_clock::now() - begun_;
        if (moves) {
            show_moving_line(current_line(since.count()));
            pause = FRAME;
        } else {
            print_remark(current_line(since.count()));
            pause =
                std::min(std::chrono::duration_cast<std::chrono::seconds>(since), LONGEST_PAUSE);
        }
    }
    if (moves) show_moving_line("");
}

}  // namespace keyview::ctl
