// The locks that this thread holds.
#include "host/registry/held_locks.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "host/registry/lock_wait.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

// Inherited locks and moments belong to the parent: the child ends neither, and only keeps them
// reachable for leak checkers.
static void abandon_inherited(std::vector<held_entry> *entries) {
    static auto &inherited = *new std::vector<std::vector<held_entry>>;
    std::lock_guard guard(fork_mutex());
    inherited.push_back(std::move(*entries));
    entries->clear();
}

// Accessed without a call: each open of a key needs it.
static thread_local held_locks *of_this_thread __attribute__((tls_model("initial-exec"))) = nullptr;

// Likewise. A forked child inherits the variable, but not the lock.
static thread_local struct {
    held_entry *one;
    uint64_t generation;
} only_lock __attribute__((tls_model("initial-exec"))) = {};

held_entry *held_locks::only_one() noexcept {
    return only_lock.generation == fork_generation() ? only_lock.one : nullptr;
}

// Entries come, go or move until its end.
class held_locks::change : unique {
  public:
    explicit change(std::vector<held_entry> *entries) : entries_(entries) { only_lock = {}; }
    ~change() {
        only_lock = {entries_->size() == 1 ? entries_->data() : nullptr, fork_generation()};
    }

  private:
    std::vector<held_entry> *entries_;
};

held_locks &held_locks::of_thread() {
    held_locks *mine = of_this_thread;
    if (mine != nullptr && mine->generation_ == fork_generation()) return *mine;
    return begin_thread();
}

held_locks &held_locks::begin_thread() {
    struct end_of_thread {
        ~end_of_thread() { delete std::exchange(of_this_thread, nullptr); }
    };
    static thread_local end_of_thread end;
    if (of_this_thread == nullptr) of_this_thread = new held_locks;
    if (!of_this_thread->entries_.empty()) abandon_inherited(&of_this_thread->entries_);
    of_this_thread->generation_ = fork_generation();
    return *of_this_thread;
}

held_locks::~held_locks() {
    only_lock = {};
    if (generation_ != fork_generation() && !entries_.empty()) abandon_inherited(&entries_);
}

void held_locks::take(const void *service, const backend &registry, std::string_view name,
                      lock_mode mode) {
    std::shared_ptr<held_lock> lock;
    for (const held_entry &mine : entries_) {
        if (mine.keys != registry.keys || mine.name.text != name) continue;
        if (mine.mode == lock_mode::exclusive || mode == lock_mode::exclusive) {
            throw host_error(failure::lock,
                             "the lock " + mine.name.text + " is held by this thread already");
        }
        lock = mine.lock;  // a second request could wait for a writer that waits for this thread
    }
    const change around(&entries_);
    entries_.reserve(entries_.size() + 1);
    const lock_cover cover = spare_.cover_as(name);
    if (lock == nullptr)
        lock = registry.locks->acquire(spare_.text, mode, wait_limit::as_set(), cover);
    entries_.emplace_back(service, std::move(spare_), mode, std::move(lock), registry.keys);
}

bool held_locks::release(const void *service, std::string_view name) {
    const change around(&entries_);
    for (auto at = entries_.end(); at != entries_.begin();) {
        --at;
        if (at->service != service || at->name.text != name) continue;
        at->lock.reset();  // first: a waiting writer should not pay for the rest
        spare_ = std::move(at->name);
        entries_.erase(at);
        return true;
    }
    return false;
}

void held_locks::release_all(const void *service) {
    const change around(&entries_);
    auto of_service = [&](const held_entry &e) { return e.service == service; };
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), of_service), entries_.end());
}

held_entry *held_locks::covering(const store *keys, std::string_view path) {
    held_entry *found = nullptr;
    size_t closest = 0;
    for (held_entry &e : entries_) {
        std::string_view cover = e.cover().path;
        if (e.keys.get() != keys || cover.size() <= closest) continue;
        if (!path_within(path, cover)) continue;
        closest = cover.size();
        found = &e;
    }
    return found;
}

const held_lock *held_locks::fence(const store *keys, std::string_view path) {
    const held_entry *found = covering(keys, path);
    return found == nullptr ? nullptr : found->lock.get();
}

bool held_locks::find(const tree_reader &reader, const char *path, found_key *found) {
    held_entry *lock = covering(reader.keys, path);
    if (lock == nullptr) return false;
    lock_cover cover = lock->cover();
    if (!locked_view::covers(cover, path)) return false;
    lock->view.find(reader, cover, path, found);
    return true;
}

bool held_locks::find_list(const tree_reader &reader, std::string_view path, found_key *found) {
    held_entry *lock = covering(reader.keys, path);
    if (lock == nullptr || !locked_view::covers_children(lock->cover(), path)) return false;
    *found = lock->view.find_list(reader, lock->cover(), path);
    return true;
}

void held_locks::update_value(const store *keys, std::string_view path, std::string_view value) {
    for (held_entry &e : entries_) {
        if (e.keys.get() == keys && locked_view::covers(e.cover(), path)) {
            e.view.update_value(path, value);
        }
    }
}

void held_locks::detach() {
    for (held_entry &e : entries_)
        e.view.detach(e.cover());
}

void release_moments() {
    held_locks::of_thread().detach();
}

}  // namespace keyview::host
