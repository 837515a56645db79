// The locks that this thread holds.
#include "host/registry/held_locks.h"

#include <algorithm>

#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

// The locks of a parent are not those of its forked child: there they end without being released.
held_locks &held_locks::of_thread() {
    static thread_local held_locks mine;
    if (mine.generation_ != fork_generation()) {
        mine.entries_.clear();
        mine.generation_ = fork_generation();
    }
    return mine;
}

void held_locks::take(const void *service, const backend &registry, const std::string &name,
                      lock_mode mode) {
    std::shared_ptr<held_lock> lock;
    for (const held_entry &mine : entries_) {
        if (mine.keys != registry.keys || mine.name != name) continue;
        if (mine.mode == lock_mode::exclusive || mode == lock_mode::exclusive) {
            throw host_error(failure::lock, "the lock " + name + " is held by this thread already");
        }
        lock = mine.lock;  // asking again could wait for a writer that waits for this thread
    }
    entries_.reserve(entries_.size() + 1);
    lock_cover cover = cover_of(name);
    if (lock == nullptr) lock = registry.locks->acquire(name, mode, lock_wait_ms());
    entries_.push_back({service, name, mode, std::move(lock), registry.keys, std::move(cover), {}});
}

bool held_locks::release(const void *service, std::string_view name) {
    for (auto at = entries_.end(); at != entries_.begin();) {
        --at;
        if (at->service != service || at->name != name) continue;
        at->lock.reset();  // first: a waiting writer should not pay for the rest
        entries_.erase(at);
        return true;
    }
    return false;
}

void held_locks::release_all(const void *service) {
    auto of_service = [&](const held_entry &e) { return e.service == service; };
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), of_service), entries_.end());
}

held_entry *held_locks::closest(const store *keys, std::string_view path) {
    held_entry *found = nullptr;
    for (held_entry &e : entries_) {
        if (e.keys.get() != keys || e.cover.path.empty()) continue;
        if (!path_within(path, e.cover.path)) continue;
        if (found == nullptr || e.cover.path.size() > found->cover.path.size()) found = &e;
    }
    return found;
}

const held_lock *held_locks::covering(const store *keys, std::string_view path) {
    held_entry *found = closest(keys, path);
    return found == nullptr ? nullptr : found->lock.get();
}

std::shared_ptr<snapshot> held_locks::view_of(const store *keys, std::string_view path) {
    held_entry *found = closest(keys, path);
    if (found == nullptr) return nullptr;
    if (found->view == nullptr) {
        found->view = std::make_shared<snapshot>(found->keys.get(), found->cover);
    }
    return found->view->tells(path) ? found->view : nullptr;
}

void held_locks::note_value(const store *keys, std::string_view path, std::string_view value) {
    for (held_entry &e : entries_) {
        if (e.keys.get() != keys || e.view == nullptr || !e.view->tells(path)) continue;
        uint32_t key = e.view->find(path);
        if (key != snapshot::NONE) e.view->set_value(key, value);
    }
}

}  // namespace keyview::host
