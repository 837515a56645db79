// Reports on stderr what a command does, once it takes longer than a second: on a terminal in one
// line that moves, elsewhere in a line each at growing intervals.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace keyview::ctl {

class progress {
  public:
    // to_people: else nothing is printed, because programs read stderr.
    progress(std::string command, bool to_people)
        : command_(std::move(command)), to_people_(to_people) {}
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;
    ~progress() { stop(); }

    // Reports from now on; a second call does nothing. If no thread can be created, it stays silent.
    void start() noexcept;
    void stop() noexcept;

    // What the command does now, or waits for.
    void step(const std::string &text);

    // While it waits for a lock: the lock and its holder; "" once that is not known or over.
    void waits(const std::string &lock, const std::string &holder);

    // How much of it is done; without it, the keys that were read are counted.
    void count(uint64_t done, uint64_t total);

  private:
    void report_loop();
    std::string amount_done(double time_s) const;
    std::string current_line(double time_s) const;

    std::string command_;
    bool to_people_;
    std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string step_, wait_;
    uint64_t done_ = 0, total_ = 0;
    bool stopped_ = false;
};

}  // namespace keyview::ctl
