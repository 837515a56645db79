// A registry as the rest of the host kit sees it: its keys and its named locks, chosen by a URL.
//
//     lmdb:<directory>                      this machine
//     etcd://host:port,host:port/prefix     a cluster; etcds:// with TLS
//
// A further kind of registry is a further row in entry/backends.cpp and nothing else.
#ifndef KEYVIEW_HOST_REGISTRY_BACKEND_H
#define KEYVIEW_HOST_REGISTRY_BACKEND_H

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/store.h"
#include "host/support/export.h"
#include "model/locks.h"

namespace keyview::host {

enum class lock_mode { shared, exclusive };

// A lock that is held. The destructor releases it; so does the death of the process.
class KEYVIEW_HOST_API held_lock {
  public:
    held_lock() = default;
    held_lock(const held_lock &) = delete;
    held_lock &operator=(const held_lock &) = delete;
    virtual ~held_lock() = default;

    // Whether the lock is held, as far as this process can tell without asking.
    virtual bool still_held() const = 0;

    // The part of the tree that was wanted with the lock, as of its grant. Null at the second call,
    // and for a service that does not bring it: then the store is asked.
    virtual std::unique_ptr<moment> as_of_grant() { return nullptr; }
};

// How long a lock is waited for, in milliseconds: a number, or a function that is asked once there
// is something to wait for. 0 tries once.
class wait_limit {
  public:
    // Implicit, so that a number can be given where a limit is asked for.
    wait_limit(uint32_t wait_ms) : wait_ms_(wait_ms) {}
    explicit wait_limit(uint32_t (*ask)()) : ask_(ask) {}

    uint32_t ms() const { return ask_ == nullptr ? wait_ms_ : ask_(); }

  private:
    uint32_t (*ask_)() = nullptr;
    uint32_t wait_ms_ = 0;
};

struct lock_use {
    std::string name;
    lock_mode mode = lock_mode::exclusive;
    bool waits = false;
    std::string holder;  // "" if the service cannot tell
};

class KEYVIEW_HOST_API lock_service {
  public:
    lock_service() = default;
    lock_service(const lock_service &) = delete;
    lock_service &operator=(const lock_service &) = delete;
    virtual ~lock_service() = default;

    // Takes the named lock, in the name of this process: threads exclude each other too. Throws
    // host_error(failure::lock) if it is not granted in time. wanted is what the holder is going to
    // read, for a service that can bring it with the lock.
    virtual std::shared_ptr<held_lock> acquire(std::string_view name, lock_mode mode,
                                               wait_limit limit, const lock_cover &wanted = {}) = 0;

    // Who holds or waits for a lock, as far as the service can tell. A service that does not know
    // the names of its locks tells of those in names.
    virtual std::vector<lock_use> users(const std::vector<std::string> &names);
};

struct backend {
    std::shared_ptr<store> keys;
    std::shared_ptr<lock_service> locks;
};

enum class open_mode { existing, create };

// Receives what is wrong with a registry: a place in its files or the path of a key, and a sentence
// without its subject.
using damage_sink = std::function<void(const std::string &place, const std::string &reason)>;

struct check_counts {
    uint64_t keys = 0;
    uint64_t pages = 0;
};

}  // namespace keyview::host

#endif
