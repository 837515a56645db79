// Handling of fork. A child inherits the memory of its parent, but must neither use the parent's
// registry files nor keep the parent's locks alive. So a descriptor that holds a lock is closed in
// the child, and objects that belong to one process are created anew there.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "host/support/unique.h"

namespace keyview::host {

// Changes in the child of a fork. Objects of another generation belong to an ancestor.
uint64_t fork_generation() noexcept;

// The number of this process, without a system call.
pid_t process_number() noexcept;

// Held across every fork, so that the data that it guards is consistent in the child. For short
// work only; no other mutex is locked inside.
std::mutex &fork_mutex() noexcept;

// A descriptor that a forked child closes at once. open returns it, or -1 with errno.
int open_parent_only(const std::function<int()> &open);
void close_parent_only(int fd) noexcept;

// One T for each process that a fork makes, built at its first use there. The T of an ancestor is
// never destroyed: another thread of the ancestor may have been using it.
template <typename T>
class per_process : unique {
  public:
    ~per_process() {
        node *last = current_.load();
        if (last != nullptr && last->generation == fork_generation()) delete last;
    }

    T &get() {
        node *found = current_.load(std::memory_order_acquire);
        if (found != nullptr && found->generation == fork_generation()) return found->value;
        return renew(found);
    }

  private:
    struct node {
        uint64_t generation;
        node *ancestor;  // kept reachable for leak checkers
        T value;
    };

    T &renew(node *found) {
        auto fresh = std::unique_ptr<node>(new node{fork_generation(), found, {}});
        if (current_.compare_exchange_strong(found, fresh.get())) return fresh.release()->value;
        return found->value;  // another thread was faster
    }

    std::atomic<node *> current_{nullptr};
};

}  // namespace keyview::host
