// Tells on stderr what a command is at, once it takes longer than a second, and ever more rarely.
#ifndef KEYVIEW_CTL_PROGRESS_H
#define KEYVIEW_CTL_PROGRESS_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace keyview::ctl {

class progress {
  public:
    // to_people: else nothing is ever told, for programs read what is on stderr.
    progress(std::string command, bool to_people)
        : command_(std::move(command)), to_people_(to_people) {}
    progress(const progress &) = delete;
    progress &operator=(const progress &) = delete;
    ~progress() { stop(); }

    // Tells from now on; a second call does nothing. Without a thread to spare it stays silent.
    void start() noexcept;
    void stop() noexcept;

    // What the command does now, or waits for.
    void step(const std::string &text);

  private:
    void tell_on();

    std::string command_;
    bool to_people_;
    std::chrono::steady_clock::time_point begun_ = std::chrono::steady_clock::now();
    std::thread teller_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::string step_;
    bool stopped_ = false;
};

}  // namespace keyview::ctl

#endif
