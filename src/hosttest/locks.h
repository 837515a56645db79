// A lock service of the host, and a lock taken from it.
#pragma once

#include <string>

#include "hosttest/host.h"
#include "model/locks.h"

namespace keyview::hosttest {

// The status block has the 224 bytes that a lock service may write, and marks behind them.
class lock_client {
  public:
    lock_client();
    int32_t take(const std::string &name, bool exclusive);
    int32_t release(const std::string &name);
    int32_t end();

  private:
    int32_t checked(int32_t rc) const;

    uint64_t status_[32];
    void *lk_ = nullptr;
};

// The exclusive lock of a database, by its path, while the object lives.
struct held_lock {
    explicit held_lock(const std::string &database) : name(model::LOCK_HEAD + database) {
        require(client.take(name, true) == 0, "the lock " + name + " is refused");
    }
    ~held_lock() { (void)client.release(name); }
    held_lock(const held_lock &) = delete;
    held_lock &operator=(const held_lock &) = delete;

    lock_client client;
    std::string name;
};

}  // namespace keyview::hosttest
