// Named locks on byte ranges of one file.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "host/embedded/file_locks.h"

#include <fcntl.h>
#include <sys/stat.h>

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

namespace keyview::host {

static constexpr off_t GATE = off_t{1} << 62;

// ---- Descriptors --------------------------------------------------------------------------------

lock_descriptors::~lock_descriptors() {
    for (int fd : idle_)
        close_parent_only(fd);
}

int lock_descriptors::take(const registry_directory &directory) {
    {
        std::lock_guard guard(mutex_);
        if (!idle_.empty()) {
            int fd = idle_.back();
            idle_.pop_back();
            return fd;
        }
    }
    int fd = open_parent_only(directory.fd(), registry_directory::LOCK_FILE, O_RDWR);
    if (fd < 0) throw directory.lock_file_failed("opened");
    return fd;
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

static struct flock byte_at(off_t at, int type) {
    struct flock range = {};
    range.l_type = static_cast<short>(type);
    range.l_whence = SEEK_SET;
    range.l_start = at;
    range.l_len = 1;
    return range;
}

// A call that does not wait. False if another holds the range in a conflicting mode.
static bool try_byte(int fd, off_t at, int type) {
    struct flock range = byte_at(at, type);
    while (fcntl(fd, F_OFD_SETLK, &range) != 0) {
        if (errno == EAGAIN || errno == EACCES) return false;
        if (errno == EINTR) continue;
        throw host_error(failure::lock, std::string("the lock file failed: ") + strerror(errno));
    }
    return true;
}

// Whether nobody else holds the range exclusively.
static bool is_open(int fd, off_t at) {
    struct flock range = byte_at(at, F_RDLCK);
    if (fcntl(fd, F_OFD_GETLK, &range) != 0) {
        throw host_error(failure::lock, std::string("the lock file failed: ") + strerror(errno));
    }
    return range.l_type == F_UNLCK;
}

namespace {

struct lock_offsets {
    off_t byte;
    off_t gate;
    off_t turn;
    shared_words::hint *hint;
};

}  // namespace

static lock_offsets offsets_of(std::string_view name, shared_words *words) {
    uint64_t hash = XXH3_64bits(name.data(), name.size());
    uint64_t further = XXH3_64bits_withSeed(name.data(), name.size(), 1);
    auto byte = static_cast<off_t>(hash >> 2);
    return {byte, byte + GATE, static_cast<off_t>(further >> 2) + GATE, words->hint_of(hash)};
}

// ---- Locks --------------------------------------------------------------------------------------

// A lock, or on the way to one: its descriptor holds what it got so far.
class file_lock final : public held_lock {
  public:
    explicit file_lock(std::shared_ptr<file_locks> service)
        : service_(std::move(service)),
          generation_(fork_generation()),
          fd_(service_->descriptors_.get().take(*service_->directory_)) {}

    // In a forked child the descriptor is closed, and its number may be another file's.
    ~file_lock() override {
        if (!still_held()) return;
        struct flock all = {};
        all.l_type = F_UNLCK;
        all.l_whence = SEEK_SET;
        if (fcntl(fd_, F_OFD_SETLK, &all) == 0) {
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

  private:
    bool no_writer(const lock_offsets &at) const {
        if (at.hint->load() == 0) return true;
        if (!is_open(fd_, at.gate)) return false;
        at.hint->store(0);  // a killed writer may have left it; one that waits sets it again
        return true;
    }

    // The first try needs no turn, unless another one waits with it.
    bool try_gate(const lock_offsets &at) {
        if (std::exchange(waits_, true)) {
            has_turn_ = has_turn_ || try_byte(fd_, at.turn, F_WRLCK);
            if (!has_turn_) return false;
        } else if (!is_open(fd_, at.turn)) {
            return false;
        }
        if (!try_byte(fd_, at.gate, F_WRLCK)) return false;
        if (has_turn_) (void)try_byte(fd_, at.turn, F_UNLCK);  // to release never conflicts
        return true;
    }

    std::shared_ptr<file_locks> service_;
    uint64_t generation_;
    int fd_;
    bool waits_ = false;
    bool has_turn_ = false;
    bool has_gate_ = false;
};

// ---- Users of locks -----------------------------------------------------------------------------

// The ranges that a descriptor holds, as /proc reports them: whether each is shared, by its offset.
// Processes of other users are not reported.
using held_ranges = std::map<off_t, bool>;

// "lock:	1: OFDLCK ADVISORY WRITE -1 08:01:123 45 45", in the text about a descriptor.
static held_ranges ranges_of(const std::filesystem::path &descriptor) {
    held_ranges out;
    std::ifstream text(descriptor);
    for (std::string line; std::getline(text, line);) {
        if (line.rfind("lock:", 0) != 0) continue;
        std::istringstream words(line.substr(5));
        std::string number, kind, advice, mode, pid, file;
        off_t first = 0;
        if (words >> number >> kind >> advice >> mode >> pid >> file >> first)
            out[first] = mode == "READ";
    }
    return out;
}

static std::string process_label(const std::filesystem::path &process) {
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    return "process " + process.filename().string() + (name.empty() ? "" : " (" + name + ")");
}

// A writer that has the gate of a lock and not its byte waits for it.
static void add_uses(const std::map<off_t, const std::string *> &bytes, const held_ranges &held,
                     const std::string &holder, std::vector<lock_use> *out) {
    for (auto [at, shared] : held) {
        bool gate = at >= GATE;
        auto found = bytes.find(gate ? at - GATE : at);
        if (found == bytes.end() || (gate && held.count(at - GATE) > 0)) continue;
        lock_mode mode = shared ? lock_mode::shared : lock_mode::exclusive;
        out->push_back({*found->second, mode, gate, holder});
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
    auto lock = std::make_shared<file_lock>(shared_from_this());
    auto granted = [&] {
        return mode == lock_mode::shared ? lock->try_shared(at) : lock->try_exclusive(at);
    };
    if (granted()) return lock;
    release_moments();  // the holder of the lock may have to wait for their end
    uint32_t wait_ms = limit.ms();
    for (deadline wait(wait_ms); wait.pause();) {
        if (granted()) return lock;
    }
    throw not_granted(name, mode, wait_ms);
}

}  // namespace keyview::host
