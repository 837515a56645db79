// The fork handlers of the kit.
#include "host/support/fork.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "host/support/fd.h"

namespace keyview::host {

static std::atomic<uint64_t> generation{1};
static std::atomic<pid_t> number{getpid()};

std::mutex &fork_mutex() noexcept {
    static std::mutex mutex;
    return mutex;
}

// Guarded by fork_mutex(). Never destroyed: threads may outlive the end of main.
static std::vector<int> &parent_only() {
    static auto &fds = *new std::vector<int>;
    return fds;
}

uint64_t fork_generation() noexcept {
    return generation.load(std::memory_order_relaxed);
}

pid_t process_number() noexcept {
    return number.load(std::memory_order_relaxed);
}

static void before_fork() {
    fork_mutex().lock();
}

static void after_fork_in_parent() {
    fork_mutex().unlock();
}

static void after_fork_in_child() {
    generation.fetch_add(1, std::memory_order_relaxed);
    number.store(getpid(), std::memory_order_relaxed);
    for (int fd : parent_only())
        close(fd);
    parent_only().clear();
    fork_mutex().unlock();
}

static bool set_handlers() noexcept {
    return pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child) == 0;
}

// Set when the library is loaded. If that fails, no lock can be opened.
static const bool handlers_set = set_handlers();

int open_parent_only(const std::function<int()> &open) {
    if (!handlers_set) {
        errno = ENOMEM;
        return -1;
    }
    std::lock_guard guard(fork_mutex());
    parent_only().reserve(parent_only().size() + 1);
    occupy_standard_descriptors();
    int fd = open();
    if (fd >= 0) parent_only().push_back(fd);
    return fd;
}

void close_parent_only(int fd) noexcept {
    std::lock_guard guard(fork_mutex());
    auto &fds = parent_only();
    fds.erase(std::remove(fds.begin(), fds.end(), fd), fds.end());
    close(fd);
}

}  // namespace keyview::host
