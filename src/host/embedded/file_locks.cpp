// Named locks on byte ranges of one file.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "host/embedded/file_locks.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#include "host/registry/store.h"
#include "host/support/deadline.h"
#include "host/support/error.h"
#include "host/support/fd.h"

namespace keyview::host {

static constexpr off_t GATE = off_t{1} << 62;
static constexpr off_t NAMES_END = off_t{1} << 61;  // of the bytes of names
static constexpr off_t WRITERS_BYTE = NAMES_END;    // is not among all locks, nor its gate and turn
static constexpr off_t WHOLE_BYTE = NAMES_END + 2;

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

static struct flock range_at(off_t at, off_t length, int type) {
    struct flock range = {};
    range.l_type = static_cast<short>(type);
    range.l_whence = SEEK_SET;
    range.l_start = at;
    range.l_len = length;
    return range;
}

// A call that does not wait. False if another holds the range in a conflicting mode.
static bool try_range(int fd, off_t at, off_t length, int type) {
    struct flock range = range_at(at, length, type);
    while (fcntl(fd, F_OFD_SETLK, &range) != 0) {
        if (errno == EAGAIN || errno == EACCES) return false;
        if (errno == EINTR) continue;
        throw host_error(failure::lock, std::string("the lock file failed: ") + strerror(errno));
    }
    return true;
}

static bool try_byte(int fd, off_t at, int type) {
    return try_range(fd, at, 1, type);
}

// Whether nobody else holds the byte exclusively.
static bool is_open(int fd, off_t at) {
    struct flock range = range_at(at, 1, F_RDLCK);
    if (fcntl(fd, F_OFD_GETLK, &range) != 0) {
        throw host_error(failure::lock, std::string("the lock file failed: ") + strerror(errno));
    }
    return range.l_type == F_UNLCK;
}

namespace {

struct lock_offsets {
    std::string_view name;  // "" where the turn is beside the gate
    off_t byte;
    off_t gate;
    shared_words::hint *hint;
    shared_words::hint *waits;

    // Needed by writers alone.
    off_t turn() const {
        if (name.empty()) return gate + 1;
        return static_cast<off_t>(XXH3_64bits_withSeed(name.data(), name.size(), 1) >> 3) + GATE;
    }
};

}  // namespace

static lock_offsets offsets_at(off_t byte, shared_words *words) {
    auto slot = static_cast<uint64_t>(byte);
    return {{}, byte, byte + GATE, words->hint_of(slot), words->waits_of(slot)};
}

static lock_offsets offsets_of(std::string_view name, shared_words *words) {
    if (name == file_locks::WRITERS) return offsets_at(WRITERS_BYTE, words);
    uint64_t hash = XXH3_64bits(name.data(), name.size());
    auto byte = static_cast<off_t>(hash >> 3);
    return {name, byte, byte + GATE, words->hint_of(hash), words->waits_of(hash)};
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

// ---- Users of locks -----------------------------------------------------------------------------

namespace {
// A range that a descriptor holds, as /proc reports it; processes of other users are not reported.
struct held_range {
    off_t first, last;
    bool shared;
};
}  // namespace

// "lock:	1: OFDLCK ADVISORY WRITE -1 08:01:123 45 45", in the text about a descriptor.
static std::vector<held_range> ranges_of(const std::filesystem::path &descriptor) {
    std::vector<held_range> out;
    std::ifstream text(descriptor);
    for (std::string line; std::getline(text, line);) {
        if (line.rfind("lock:", 0) != 0) continue;
        std::istringstream words(line.substr(5));
        std::string number, kind, advice, mode, pid, file;
        off_t first = 0, last = 0;
        if (words >> number >> kind >> advice >> mode >> pid >> file >> first >> last)
            out.push_back({first, last, mode == "READ"});
    }
    return out;
}

static const held_range *range_with(const std::vector<held_range> &held, off_t at) {
    auto found = std::find_if(held.begin(), held.end(), [&](const held_range &one) {
        return one.first <= at && at <= one.last;
    });
    return found == held.end() ? nullptr : &*found;
}

static std::string process_label(const std::filesystem::path &process) {
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    return "process " + process.filename().string() + (name.empty() ? "" : " (" + name + ")");
}

// A writer that has the gate of a lock and not its byte waits for it.
static void add_uses(const std::map<off_t, const std::string *> &bytes,
                     const std::vector<held_range> &held, const std::string &holder,
                     std::vector<lock_use> *out) {
    if (held.empty()) return;
    for (auto [at, name] : bytes) {
        const held_range *byte = range_with(held, at);
        const held_range *used = byte == nullptr ? range_with(held, at + GATE) : byte;
        if (used == nullptr) continue;
        lock_mode mode = used->shared ? lock_mode::shared : lock_mode::exclusive;
        out->push_back({*name, mode, byte == nullptr, holder});
    }
}

std::vector<lock_use> file_locks::users(const std::vector<std::string> &names) {
    namespace fs = std::filesystem;
    std::map<off_t, const std::string *> bytes;
    for (const std::string &name : names)
        bytes.emplace(offsets_of(name, &words_).byte, &name);
    std::vector<lock_use> out;
    std::error_code ignored;  // processes come and go
    for (const fs::directory_entry &process : fs::directory_iterator("/proc", ignored)) {
        if (process.path().filename().string().find_first_not_of("0123456789") != std::string::npos)
            continue;
        for (const fs::directory_entry &fd :
             fs::directory_iterator(process.path() / "fd", ignored)) {
            struct stat file = {};
            bool ours = stat(fd.path().c_str(), &file) == 0 &&
                        file_id(file.st_dev, file.st_ino) == directory_->lock_id();
            if (!ours) continue;
            add_uses(bytes, ranges_of(process.path() / "fdinfo" / fd.path().filename()),
                     process_label(process.path()), &out);
        }
    }
    return out;
}

static host_error not_granted(std::string_view name, lock_mode mode, uint32_t wait_ms) {
    std::string what = mode == lock_mode::shared ? "shared lock " : "exclusive lock ";
    if (name == file_locks::WRITERS) what = "write lock";
    return host_error(failure::lock, "the " + what + std::string(name) +
                                         " was not granted within " + std::to_string(wait_ms) +
                                         " ms: another one holds it");
}

// Delivers no part with the lock: reading the file is fast at any time.
std::shared_ptr<held_lock> file_locks::acquire(std::string_view name, lock_mode mode,
                                               wait_limit limit, const lock_cover & /*wanted*/) {
    lock_offsets at = offsets_of(name, &words_);
    auto lock = std::make_shared<file_lock>(shared_from_this(), at.waits);
    auto granted = [&] {
        return mode == lock_mode::shared ? lock->try_shared(at) : lock->try_exclusive(at);
    };
    if (granted()) return lock;
    release_moments();  // the holder of the lock may have to wait for their end
    uint32_t wait_ms = limit.ms(name);
    lock_watch watch(&watches_.get(), *directory_);
    deadline wait(wait_ms);
    do {
        at.waits->store(1);
        if (granted()) return lock;
    } while (wait.pause(watch.fd()));
    throw not_granted(name, mode, wait_ms);
}

std::shared_ptr<held_lock> file_locks::acquire_all(wait_limit limit) {
    static constexpr uint32_t WINDOW_MS = 100;
    release_moments();
    const lock_offsets whole = offsets_at(WHOLE_BYTE, &words_);
    const uint32_t wait_ms = limit.ms();
    deadline wait(wait_ms);
    do {
        auto lock = std::make_shared<file_lock>(shared_from_this(), nullptr);
        deadline window(std::min(WINDOW_MS, wait_ms));
        do {
            if (lock->try_all(whole)) return lock;
        } while (window.pause());
    } while (wait.pause());
    throw host_error(failure::lock, "all locks of the registry were not granted within " +
                                        std::to_string(wait_ms) + " ms: another one holds one");
}

}  // namespace keyview::host
