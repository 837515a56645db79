// Other processes: forked ones, with a page of memory that all share, and programs of the build.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace keyview::bench {

// A forked process that runs the body and ends; killed by the destructor.
class child {
  public:
    explicit child(const std::function<void()> &body);
    child(const child &) = delete;
    child &operator=(const child &) = delete;
    ~child() { kill_and_wait(); }

    void signal(int number) const;
    void kill_and_wait();

    // Waits for its end, which has to be a good one.
    void wait();

  private:
    pid_t pid_;
};

// The text that a body returns in a forked process, whose end has to be a good one.
std::string text_from_child(const std::function<std::string()> &body);

// Memory that forked processes share, zero at first.
void *shared_memory(size_t size);
void free_shared_memory(void *memory, size_t size);

template <typename T>
class shared {
  public:
    shared() : it_(new (shared_memory(sizeof(T))) T) {}
    shared(const shared &) = delete;
    shared &operator=(const shared &) = delete;
    ~shared() { free_shared_memory(it_, sizeof(T)); }

    T *operator->() const { return it_; }

  private:
    T *it_;
};

void sleep_us(double us);

// Sleeps until it holds; a failure if that takes half a minute.
void wait_until(const std::function<bool()> &holds);

// Starts a program and waits for its end, which has to be a good one. Its output goes nowhere. The
// first word is the program, looked for in the path unless it has a slash.
void run_program(const std::vector<std::string> &words);

// The same; returns the numbers that it prints.
std::vector<double> figures_of(const std::vector<std::string> &words);

}  // namespace keyview::bench
