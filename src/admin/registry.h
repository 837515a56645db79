// The registry as the administration uses it: the C functions of keyview_registry.h with owners,
// containers and exceptions.
#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/error.h"
#include "admin/key_list.h"
#include "admin/key_map.h"
#include "host/if/keyview_registry.h"
#include "model/path.h"

namespace keyview::admin {

// How many keys this process has read so far, for reports of progress.
inline std::atomic<uint64_t> keys_read{0};

// Throws the failure of a C function; does nothing after a success.
void check(int32_t rc);

inline std::string text_of(keyview_bytes bytes) {
    return bytes.size == 0 ? std::string() : std::string(bytes.data, bytes.size);
}

// What the callbacks of one C call collect into derives from this. An exception must not cross the
// C function, so it is kept and thrown behind it.
class callback_guard {
  public:
    // Runs the body of a callback, unless an earlier one failed.
    template <typename work>
    void run(work &&body) noexcept {
        if (thrown_ != nullptr) return;
        try {
            body();
        } catch (...) {
            thrown_ = std::current_exception();
        }
    }

    // Throws the failure of the C function, else that of a callback.
    void finish(int32_t rc) const;

  private:
    std::exception_ptr thrown_ = nullptr;
};

// A key with what is below it, as far as depth goes.
struct part {
    std::string path;
    reach depth = reach::key_alone;
};

struct noted_change {
    uint64_t revision = 0;  // that the tree had with it
    key_change change;
};

// A change as the history has it.
struct past_change {
    uint64_t revision = 0;  // that the tree had with it
    int64_t time_us = 0;    // since 1970
    std::string user, program, host;
    uint64_t process = 0;
    std::vector<key_change> changes;
    uint64_t left_out = 0;  // further keys, whose values are not kept
};

struct change_batch {
    std::vector<noted_change> changes;  // in their order
    uint64_t up_to = 0;                 // the revision to continue from
};

// Names of locks by their numbers, which are usually not requested.
struct lock_names {
    size_t count;
    std::function<std::string(size_t number)> at;
};

// A lock, released at the end of the scope.
class held_lock {
  public:
    held_lock(keyview_registry *registry, std::string_view name, bool shared, int64_t wait_ms);
    held_lock(keyview_registry *registry, const lock_names &names, int64_t wait_ms);

    bool still_held() const { return keyview_lock_held(lock_.get()) != 0; }
    keyview_lock *get() const { return lock_.get(); }

  private:
    struct release {
        void operator()(keyview_lock *lock) const { keyview_lock_release(lock); }
    };
    std::unique_ptr<keyview_lock, release> lock_;
};

struct lock_user {
    std::string name;
    bool shared = false;
    bool waits = false;
    std::string holder;  // "" if the registry does not know it
};

class registry {
  public:
    // The registry of a URL; "" is the one in force. One that does not exist is
    // KEYVIEW_FAILURE_REGISTRY, or nothing.
    static registry open(const std::string &url = "");
    static std::optional<registry> open_if_present(const std::string &url = "");
    static registry create(const std::string &url);

    // Adds parts of the tree, as of one moment, to out; returns the tree's revision. Where damaged
    // is given it receives the paths of damaged rows, which else are a failure.
    uint64_t read(const std::vector<part> &parts, key_map *out,
                  std::vector<std::string> *damaged = nullptr) const;
    // The same, appended to a list in no order; parts that overlap deliver a key twice.
    uint64_t read(const std::vector<part> &parts, key_list *out,
                  std::vector<std::string> *damaged = nullptr) const;
    uint64_t revision() const { return read({}, row_sink(), nullptr); }

    // Changes of a key and of what is below it after a revision: the next ones, waited for, or none
    // when the time is over. Nothing if the registry keeps no history.
    std::optional<change_batch> changes_since(std::string_view path, uint64_t since,
                                              uint32_t wait_ms) const;

    // Delivers the changes after a revision, the latest first, until the sink returns false.
    void history(uint64_t since, const std::function<bool(past_change &&change)> &sink) const;

    // Carries out all changes or none, while the locks are held and, unless it is 0, the tree is at
    // the revision. A change is a key that is put or, without a value, removed with all that is below
    // it; each is requested by its number, perhaps more than once.
    void apply(size_t count, const std::function<key_row(size_t number)> &change_at,
               const std::vector<held_lock> &locks, uint64_t revision) const;

    // Waits up to wait_ms for a lock; a negative wait is the one in force.
    held_lock lock(std::string_view name, bool shared, int64_t wait_ms) const {
        return {handle_.get(), name, shared, wait_ms};
    }
    // Several at once: the registry is locked as a whole.
    held_lock lock_all(const lock_names &names, int64_t wait_ms) const {
        return {handle_.get(), names, wait_ms};
    }
    std::vector<lock_user> lock_users(const std::vector<std::string> &names) const;

    void recover(bool undo) const { check(keyview_registry_recover(handle_.get(), undo ? 1 : 0)); }

  private:
    explicit registry(keyview_registry *handle) : handle_(handle) {}

    using row_sink = std::function<void(std::string_view path, std::string_view value)>;
    uint64_t read(const std::vector<part> &parts, const row_sink &row,
                  std::vector<std::string> *damaged) const;

    struct close {
        void operator()(keyview_registry *handle) const { keyview_registry_close(handle); }
    };
    std::unique_ptr<keyview_registry, close> handle_;
};

// Records what the operations of the library set on this thread, until the end of the scope.
class set_recorder : callback_guard {
  public:
    set_recorder();
    set_recorder(const set_recorder &) = delete;
    set_recorder &operator=(const set_recorder &) = delete;
    ~set_recorder() { keyview_registry_observe_sets(nullptr, nullptr); }

    // The values that changed, in the order of the sets.
    std::vector<key_change> changes() const;

  private:
    static void add(void *arg, uint64_t revision, keyview_bytes path, const keyview_bytes *before,
                    const keyview_bytes *after);

    std::vector<key_change> changes_;
};

// Records the damage that the operations of the library meet on this thread, until the end of the
// scope.
class damage_recorder : callback_guard {
  public:
    damage_recorder();
    damage_recorder(const damage_recorder &) = delete;
    damage_recorder &operator=(const damage_recorder &) = delete;
    ~damage_recorder() { keyview_registry_observe_damage(nullptr, nullptr); }

    // What was met first; "" if nothing was.
    std::string first() const;

  private:
    static void add(void *arg, keyview_bytes text);

    std::string first_;
};

}  // namespace keyview::admin
