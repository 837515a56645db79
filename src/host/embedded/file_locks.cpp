// Named locks on byte ranges of one file.
#include "host/embedded/file_locks.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "host/embedded/lock_offsets.h"
#include "host/registry/reported_wait.h"
#include "host/registry/store.h"
#include "host/support/deadline.h"
#include "host/support/error.h"
#include "host/support/fd.h"

namespace keyview::host {

// ---- Descriptors --------------------------------------------------------------------------------

lock_descriptors::~lock_descriptors() {
    for (int fd : idle_)
        close_parent_only(fd);
}

int lock_descriptors::take(const std::function<int()> &open) {
    {
        std::lock_guard guard(mutex_);
        if (!idle_.empty()) {
            int fd = idle_.back();
            idle_.pop_back();
            return fd;
        }
    }
    return open_parent_only(open);
}

void lock_descriptors::give_back(int fd) noexcept {
    {
        std::lock_guard guard(mutex_);
        if (idle_.size() < MAX_IDLE) {
            idle_.push_back(fd);
            return;
        }
    }
    close_parent_only(fd);
}

// ---- Byte ranges --------------------------------------------------------------------------------

static host_error call_failed() {
    return host_error(failure::registry, std::string("the lock file failed: ") + strerror(errno));
}

// A call that does not wait. False if another holds the range in a conflicting mode.
static bool try_range(int fd, off_t at, off_t length, int type) {
    struct flock range = range_at(at, length, type);
    while (fcntl(fd, F_OFD_SETLK, &range) != 0) {
        if (errno == EAGAIN || errno == EACCES) return false;
        if (errno == EINTR) continue;
        throw call_failed();
    }
    return true;
}

static bool try_byte(int fd, off_t at, int type) {
    return try_range(fd, at, 1, type);
}

// Whether nobody else holds the byte exclusively.
static bool is_open(int fd, off_t at) {
    struct flock range = range_at(at, 1, F_RDLCK);
    if (fcntl(fd, F_OFD_GETLK, &range) != 0) throw call_failed();
    return range.l_type == F_UNLCK;
}

// ---- Locks --------------------------------------------------------------------------------------

// A lock, or on the way to one: its descriptor holds what it got so far.
class file_lock final : public held_lock {
  public:
    // Without a hint somebody always waits.
    file_lock(std::shared_ptr<file_locks> service, shared_words::hint *waits_hint)
        : service_(std::move(service)),
          generation_(fork_generation()),
          fd_(service_->descriptors_.get().take([this] {
              return openat(service_->directory_->fd(), registry_directory::LOCK_FILE,
                            O_RDWR | O_CLOEXEC | O_NOFOLLOW);
          })),
          waits_hint_(waits_hint) {
        if (fd_ < 0) throw service_->directory_->lock_file_failed("opened");
    }

    // In a forked child the descriptor is closed, and its number may be another file's.
    ~file_lock() override {
        if (!still_held()) return;
        if (noted_ != nullptr && noted_->load(std::memory_order_relaxed) == note_)
            noted_->store(0, std::memory_order_relaxed);
        struct flock all = {};
        all.l_type = F_UNLCK;
        all.l_whence = SEEK_SET;
        bool released = fcntl(fd_, F_OFD_SETLK, &all) == 0;
        if (released && !anybody_waits()) {
            service_->descriptors_.get().give_back(fd_);
        } else {
            close_parent_only(fd_);
        }
    }

    // For people who wait for the lock that was granted.
    void note_holder(const lock_offsets &at) {
        noted_ = at.holder;
        note_ = new_note(at);
        noted_->store(note_, std::memory_order_relaxed);
    }

    bool still_held() const override { return generation_ == fork_generation(); }

    bool try_shared(const lock_offsets &at) {
        return no_writer(at) && try_byte(fd_, at.byte, F_RDLCK);
    }

    bool try_exclusive(const lock_offsets &at) {
        at.hint->store(1);
        has_gate_ = has_gate_ || try_gate(at);
        return has_gate_ && try_byte(fd_, at.byte, F_WRLCK);
    }

    // The whole is the lock of those who want all locks.
    bool try_all(const lock_offsets &whole) {
        has_whole_ = has_whole_ || try_exclusive(whole);
        if (!has_whole_) return false;
        whole.hint->store(1);
        for (shared_words::hint &one : service_->words_.hints())
            one.store(1);
        has_all_gates_ = has_all_gates_ || try_range(fd_, GATE, NAMES_END, F_WRLCK);
        return has_all_gates_ && try_range(fd_, 0, NAMES_END, F_WRLCK);
    }

  private:
    bool anybody_waits() const {
        if (waits_hint_ == nullptr) return true;
        if (waits_hint_->load() == 0) return false;
        waits_hint_->store(0);
        return true;
    }

    bool no_writer(const lock_offsets &at) const {
        if (at.hint->load() == 0) return true;
        if (!is_open(fd_, at.gate)) return false;
        at.hint->store(0);  // a killed writer may have left it; one that waits sets it again
        return true;
    }

    // The first try needs no turn, unless another one waits with it.
    bool try_gate(const lock_offsets &at) {
        // Nobody new gets ahead of one who wants all locks; who waits already does.
        if (at.byte < NAMES_END && !has_turn_ &&
            !no_writer(offsets_at(WHOLE_BYTE, &service_->words_)))
            return false;
        if (std::exchange(waits_, true)) {
            has_turn_ = has_turn_ || try_byte(fd_, at.turn(), F_WRLCK);
            if (!has_turn_) return false;
        } else if (!is_open(fd_, at.turn())) {
            return false;
        }
        if (!try_byte(fd_, at.gate, F_WRLCK)) return false;
        if (has_turn_) (void)try_byte(fd_, at.turn(), F_UNLCK);  // to release never conflicts
        return true;
    }

    std::shared_ptr<file_locks> service_;
    uint64_t generation_;
    int fd_;
    shared_words::hint *waits_hint_;
    shared_words::holder_note *noted_ = nullptr;
    uint64_t note_ = 0;
    bool waits_ = false;
    bool has_turn_ = false;
    bool has_gate_ = false;
    bool has_whole_ = false;
    bool has_all_gates_ = false;
};

namespace {
// Reports each close of a descriptor of the lock file, for one waiter at a time.
class lock_watch : unique {
  public:
    lock_watch(lock_descriptors *idle, const registry_directory &directory)
        : idle_(idle), fd_(idle->take([&] { return opened(directory); })) {}
    ~lock_watch() {
        if (fd_ >= 0) idle_->give_back(fd_);
    }

    // -1 if the system grants none.
    int fd() const { return fd_; }

  private:
    static int opened(const registry_directory &directory) {
        unique_fd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
        const std::string path =
            "/proc/self/fd/" + std::to_string(directory.fd()) + "/" + registry_directory::LOCK_FILE;
        if (!fd.valid() || inotify_add_watch(fd.get(), path.c_str(), IN_CLOSE_WRITE) < 0) return -1;
        return fd.release();
    }

    lock_descriptors *idle_;
    int fd_;
};
}  // namespace

// ---- Acquiring ----------------------------------------------------------------------------------

// One who waits for all locks tries it in short windows, as none is long enough where a holder of a lock
// waits for a further one, and now and then in a long one, for holders that take their time. Between them
// the gates are open for a moment, in which others wake up and go on.
static constexpr uint32_t WINDOW_MS = 5, LONG_WINDOW_MS = 100, LONG_EACH = 8, MOMENT_MS = 5;

static host_error not_granted(const std::string &what, uint32_t wait_ms, const std::string &which,
                              const std::string &holder) {
    return host_error(
        failure::lock,
        what + " not granted within " + std::to_string(wait_ms) + " ms: " +
            (holder.empty() ? "another one holds " + which : which + " is held by " + holder));
}

static std::string lock_text(std::string_view name, lock_mode mode) {
    if (name == file_locks::WRITERS) return "the write lock was";
    const char *what = mode == lock_mode::shared ? "the shared lock " : "the exclusive lock ";
    return what + std::string(name) + " was";
}

// Delivers no part with the lock: reading the file is fast at any time.
std::shared_ptr<held_lock> file_locks::acquire(std::string_view name, lock_mode mode,
                                               wait_limit limit, const lock_cover & /*wanted*/) {
    lock_offsets at = offsets_of(name, &words_);
    auto lock = std::make_shared<file_lock>(shared_from_this(), at.waits);
    auto granted = [&] {
        bool got = mode == lock_mode::shared ? lock->try_shared(at) : lock->try_exclusive(at);
        if (got) lock->note_holder(at);
        return got;
    };
    if (granted()) return lock;
    release_moments();  // the holder of the lock may have to wait for their end
    uint32_t wait_ms = limit.ms(name);
    lock_watch watch(&watches_.get(), *directory_);
    deadline wait(wait_ms);
    reported_wait report(limit, name);
    do {
        at.waits->store(1);
        if (granted()) return lock;
        if (report.due()) report.note(holder_of(at, &words_));
    } while (wait.pause(watch.fd()));
    throw not_granted(lock_text(name, mode), wait_ms, "it", holder_of(at, &words_));
}

std::shared_ptr<held_lock> file_locks::acquire_all(wait_limit limit) {
    release_moments();
    const lock_offsets whole = offsets_at(WHOLE_BYTE, &words_);
    const uint32_t wait_ms = limit.ms();
    deadline wait(wait_ms);
    reported_wait report(limit, ALL_LOCKS);
    for (unsigned n = 1;; ++n) {
        auto lock = std::make_shared<file_lock>(shared_from_this(), nullptr);
        deadline window(std::min(n % LONG_EACH == 0 ? LONG_WINDOW_MS : WINDOW_MS, wait_ms));
        do {
            if (!lock->try_all(whole)) continue;
            lock->note_holder(whole);
            return lock;
        } while (window.pause());
        lock.reset();
        if (report.due()) report.note(any_holder());
        deadline moment(MOMENT_MS);
        do {
            if (!wait.pause())
                throw not_granted("all locks of the registry were", wait_ms, "one", any_holder());
        } while (moment.pause());
    }
}

}  // namespace keyview::host
