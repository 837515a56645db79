// The locks that this thread holds, each with its view of the tree. The lock operations maintain
// the table, the registry client reads through it. A lock belongs to the thread that acquired it,
// and is released when that thread ends.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/backend.h"
#include "host/registry/locked_view.h"
#include "host/support/unique.h"
#include "model/path.h"

namespace keyview::host {

// A name with what it covers, which stays known if the same name comes again.
struct lock_name {
    std::string text;
    size_t cover_at = std::string::npos;  // offset of the path that it covers; npos for none
    reach depth = reach::all_below;

    lock_cover cover() const {
        if (cover_at == text.npos) return {};
        return {std::string_view(text).substr(cover_at), depth};
    }

    lock_cover cover_as(std::string_view name) {
        if (text == name) return cover();
        text.assign(name);
        const lock_cover found = cover_of(text);
        depth = found.depth;
        cover_at =
            found.path.empty() ? text.npos : static_cast<size_t>(found.path.data() - text.data());
        return found;
    }
};

struct held_entry {
    const void *service;  // the lock service handle that acquired it
    lock_name name;
    lock_mode mode;
    std::shared_ptr<held_lock> lock;
    std::shared_ptr<store> keys;  // the store that the lock protects
    locked_view view;

    held_entry(const void *through, lock_name &&its_name, lock_mode in_mode,
               std::shared_ptr<held_lock> &&granted, const std::shared_ptr<store> &protects)
        : service(through),
          name(std::move(its_name)),
          mode(in_mode),
          lock(std::move(granted)),
          keys(protects),
          view(lock->as_of_grant()) {}

    lock_cover cover() const { return name.cover(); }
};

class held_locks : unique {
  public:
    // The table of this thread. In a forked child it starts empty. A thread that has run its
    // destructors, as in an atexit handler, gets a new table, which is never destroyed.
    static held_locks &of_thread();

    ~held_locks();

    // Acquires a lock and adds it. Throws failure::lock if it is not granted in time, or if another
    // lock of this thread conflicts with it.
    void take(const void *service, const backend &registry, std::string_view name, lock_mode mode);

    // Releases the latest lock of that name, or all locks of a service; false if there is none.
    bool release(const void *service, std::string_view name);
    void release_all(const void *service);

    // The lock that covers a path most closely; null if none does.
    const held_lock *fence(const store *keys, std::string_view path);

    // Finds a key, or its list, in the view of the closest lock that covers it; false if no view
    // covers it.
    bool find(const tree_reader &reader, const char *path, found_key *found);
    bool find_list(const tree_reader &reader, std::string_view path, found_key *found);

    // The one lock that this thread holds; null if it holds none or several.
    static held_entry *only_one() noexcept;

    // Updates a value in the views after a set.
    void update_value(const store *keys, std::string_view path, std::string_view value);

    // Detaches the views from the store, as release_moments() does.
    void detach();

  private:
    class change;

    [[gnu::cold]] static held_locks &begin_thread();
    held_entry *covering(const store *keys, std::string_view path);

    uint64_t generation_ = 0;
    std::vector<held_entry> entries_;
    lock_name spare_;  // of the lock that was released last; storage for the next one
};

}  // namespace keyview::host
