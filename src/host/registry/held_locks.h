// The locks that this thread holds, with the snapshot that each gives it. The lock operations keep
// the table, the registry client reads through it. A lock belongs to the thread that took it, and
// is released when that thread ends.
#ifndef KEYVIEW_HOST_REGISTRY_HELD_LOCKS_H
#define KEYVIEW_HOST_REGISTRY_HELD_LOCKS_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/backend.h"
#include "host/registry/path.h"
#include "host/registry/snapshot.h"

namespace keyview::host {

struct held_entry {
    const void *service;  // the lock service handle it was taken with
    std::string name;
    lock_mode mode;
    std::shared_ptr<held_lock> lock;
    std::shared_ptr<store> keys;  // what the lock protects
    lock_cover cover;
    std::shared_ptr<snapshot> view;  // null before the first read
};

class held_locks {
  public:
    // The table of this thread. In a forked child it starts empty.
    static held_locks &of_thread();

    // Takes a lock and enters it. Throws failure::lock if it is not granted in time, or if this
    // thread itself stands in the way.
    void take(const void *service, const backend &registry, const std::string &name,
              lock_mode mode);

    // Releases the latest lock of that name, or all locks of a service; false if there is none.
    bool release(const void *service, std::string_view name);
    void release_all(const void *service);

    // The lock that covers a path most closely; null if none does.
    const held_lock *covering(const store *keys, std::string_view path);

    // The snapshot that tells about a key, read now if it was not yet; null if there is none.
    std::shared_ptr<snapshot> view_of(const store *keys, std::string_view path);

    // Brings a value that was set into the snapshots.
    void note_value(const store *keys, std::string_view path, std::string_view value);

  private:
    held_entry *closest(const store *keys, std::string_view path);

    uint64_t generation_ = 0;
    std::vector<held_entry> entries_;
};

}  // namespace keyview::host

#endif
