// The interface of a registry within the host kit: its keys and its named locks, chosen by a URL.
//
//     lmdb:<directory>                      this machine
//     etcd://host:port,host:port/prefix     a cluster; etcds:// with TLS
//
// A further kind of registry is a further row in entry/backends.cpp and nothing else.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/store.h"
#include "host/support/unique.h"
#include "model/locks.h"

namespace keyview::host {

enum class lock_mode { shared, exclusive };

// A held lock. The destructor releases it; so does the end of the process, however it ends.
class held_lock : public abstract_base {
  public:
    // Whether the lock is still held, as far as this process knows without a call.
    virtual bool still_held() const = 0;

    // The part of the tree that was requested with the lock, as of its grant. Null at the second
    // call, and for a service that does not deliver it: then the store is read.
    virtual std::unique_ptr<moment> as_of_grant() { return nullptr; }
};

// What this process has set for waits (lock_wait.h, reported_wait.h). A module has its own copy of the
// kit, without settings: it gets the kit's with each limit.
struct wait_rules {
    uint32_t (*ms)(std::string_view name);
    void (*report)(std::string_view name, std::string_view holder);
};
extern const wait_rules OWN_WAIT_RULES;

// The longest wait for a lock, in milliseconds: a number, or the setting, which is read once a wait
// is necessary. 0 tries once.
class wait_limit {
  public:
    // Implicit, so that a number converts to a limit.
    wait_limit(uint32_t wait_ms) : wait_ms_(wait_ms) {}
    static wait_limit as_set() {
        wait_limit out(0);
        out.as_set_ = true;
        return out;
    }

    uint32_t ms(std::string_view name = {}) const { return as_set_ ? rules_->ms(name) : wait_ms_; }

    // Another time, for a part of the same wait.
    wait_limit within(uint32_t wait_ms) const {
        wait_limit out = *this;
        out.wait_ms_ = wait_ms;
        out.as_set_ = false;
        return out;
    }

    void report(std::string_view name, std::string_view holder) const {
        rules_->report(name, holder);
    }

  private:
    const wait_rules *rules_ = &OWN_WAIT_RULES;
    uint32_t wait_ms_;
    bool as_set_ = false;
};

struct lock_use {
    std::string name;
    lock_mode mode = lock_mode::exclusive;
    bool waits = false;
    // "keyviewctl, process 17 on db1, since 2026-11-26T12:00:03Z", without the time if only that is
    // not known, and "" if the service does not know the holder. A waiter's time is that of its
    // request.
    std::string holder;
};

class lock_service : public abstract_base {
  public:
    // Acquires the named lock; threads of one process exclude each other, too. Throws
    // host_error(failure::lock) if it is not granted in time. wanted is the part that the holder
    // will read, for a service that can deliver it with the lock.
    virtual std::shared_ptr<held_lock> acquire(std::string_view name, lock_mode mode,
                                               wait_limit limit, const lock_cover &wanted = {}) = 0;

    // Acquires several locks exclusively one by one, or none; the names are sorted, so that two
    // programs never wait for each other in a ring.
    std::vector<std::shared_ptr<held_lock>> acquire_each(const std::vector<std::string> &names,
                                                         wait_limit limit);

    // Acquires, in a few steps, one lock that excludes each lock of the registry.
    virtual std::shared_ptr<held_lock> acquire_all(wait_limit limit) = 0;

    // The holders and waiters of locks, as far as the service knows them. A service that does not
    // store the names of its locks reports on those in names.
    virtual std::vector<lock_use> users(const std::vector<std::string> &names);
};

struct backend {
    std::shared_ptr<store> keys;
    std::shared_ptr<lock_service> locks;
};

enum class open_mode { existing, create };

// Receives a damage of a registry: an offset in its files or the path of a key, and a sentence
// without its subject.
using damage_sink = std::function<void(const std::string &place, const std::string &reason)>;

struct check_counts {
    uint64_t keys = 0;
    uint64_t pages = 0;
};

}  // namespace keyview::host
