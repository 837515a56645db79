// Who holds or waits for locks, as the system and the notes of the holders show it.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/embedded/file_locks.h"
#include "host/embedded/lock_offsets.h"
#include "host/support/fd.h"
#include "host/support/process.h"

namespace keyview::host {

namespace {
// A range that a descriptor holds, as /proc reports it; processes of other users are not reported.
struct held_range {
    off_t first, last;
    bool shared;
};
}  // namespace

static std::vector<std::string_view> words_of(std::string_view line) {
    static constexpr char BETWEEN[] = " \t";
    std::vector<std::string_view> words;
    for (size_t at = 0; (at = line.find_first_not_of(BETWEEN, at)) != line.npos;) {
        size_t end = std::min(line.find_first_of(BETWEEN, at), line.size());
        words.push_back(line.substr(at, end - at));
        at = end;
    }
    return words;
}

// "lock:	1: OFDLCK ADVISORY WRITE -1 08:01:123 45 45", in the text about a descriptor.
static std::vector<held_range> ranges_of(const std::string &descriptor) {
    constexpr size_t MODE = 4, FIRST = 7, LAST = 8;
    std::vector<held_range> out;
    const std::string text = proc_text(descriptor);
    for (size_t at = 0, end = 0; end < text.size(); at = end + 1) {
        end = std::min(text.find('\n', at), text.size());
        auto words = words_of(std::string_view(text).substr(at, end - at));
        if (words.size() <= LAST || words[0] != "lock:") continue;
        auto number = [&](size_t n) { return strtol(words[n].data(), nullptr, 10); };
        out.push_back({number(FIRST), number(LAST), words[MODE] == "READ"});
    }
    return out;
}

static const held_range *range_with(const std::vector<held_range> &held, off_t at) {
    auto found = std::find_if(held.begin(), held.end(), [&](const held_range &one) {
        return one.first <= at && at <= one.last;
    });
    return found == held.end() ? nullptr : &*found;
}

namespace {
// The processes of other users do not show what they hold: their locks are known by their notes.
class lock_listing {
  public:
    lock_listing(const std::vector<std::string> &names, shared_words *words)
        : whole_(offsets_at(WHOLE_BYTE, words)) {
        for (const std::string &name : names)
            locks_.emplace(offsets_of(name, words).byte, use{&name, offsets_of(name, words)});
    }

    // A writer that has the gate of a lock and not its byte waits for it.
    void add(const std::vector<held_range> &held, pid_t pid) {
        if (held.empty()) return;
        for (auto &[at, lock] : locks_) {
            const held_range *byte = range_with(held, at);
            const held_range *used = byte == nullptr ? range_with(held, at + GATE) : byte;
            if (used == nullptr) continue;
            lock_mode mode = used->shared ? lock_mode::shared : lock_mode::exclusive;
            std::string holder = byte == nullptr ? "" : noted_holder(lock.at, pid);
            if (holder.empty()) holder = process_since(pid, NO_TIME);
            found_.push_back({*lock.name, mode, byte == nullptr, holder});
            lock.listed = lock.listed || byte != nullptr;
        }
    }

    // Adds the locks that are held and not listed.
    std::vector<lock_use> finish(int lock_file) && {
        for (const auto &[at, lock] : locks_) {
            struct flock range = range_at(at, 1, F_WRLCK);
            bool held = !lock.listed && fcntl(lock_file, F_OFD_GETLK, &range) == 0 &&
                        range.l_type != F_UNLCK;
            if (!held) continue;
            lock_mode mode = range.l_type == F_RDLCK ? lock_mode::shared : lock_mode::exclusive;
            found_.push_back({*lock.name, mode, false, noted_holder(lock.at, 0)});
        }
        return std::move(found_);
    }

  private:
    struct use {
        const std::string *name;
        lock_offsets at;
        bool listed = false;
    };

    // "" if it is not that process; 0 is any.
    std::string noted_holder(const lock_offsets &at, pid_t pid) const {
        for (uint64_t note : {note_at(at), note_at(whole_)})
            if (note != 0 && (pid == 0 || process_in(note) == pid)) return holder_in(note);
        return "";
    }

    lock_offsets whole_;
    std::map<off_t, use> locks_;
    std::vector<lock_use> found_;
};
}  // namespace

// Not for writing: to close it would wake waiters.
static unique_fd file_to_query(const registry_directory &directory) {
    return unique_fd(
        openat(directory.fd(), registry_directory::LOCK_FILE, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
}

// Empty if the directory cannot be read: processes come and go. Without memory the iterators of the
// standard library would end the program.
static std::vector<std::string> names_in(const std::string &directory) {
    std::unique_ptr<DIR, int (*)(DIR *)> open(opendir(directory.c_str()), closedir);
    std::vector<std::string> names;
    while (const dirent *entry = open == nullptr ? nullptr : readdir(open.get()))
        names.emplace_back(entry->d_name);
    return names;
}

static std::string file_in(const std::string &directory, const std::string &name) {
    return directory + "/" + name;
}

std::vector<lock_use> file_locks::users(const std::vector<std::string> &names) {
    lock_listing listing(names, &words_);
    for (const std::string &number : names_in("/proc")) {
        if (number.find_first_not_of("0123456789") != std::string::npos) continue;
        const std::string process = file_in("/proc", number), files = file_in(process, "fd");
        for (const std::string &fd : names_in(files)) {
            struct stat file = {};
            bool ours = stat(file_in(files, fd).c_str(), &file) == 0 &&
                        file_id(file.st_dev, file.st_ino) == directory_->lock_id();
            if (!ours) continue;
            listing.add(ranges_of(file_in(file_in(process, "fdinfo"), fd)),
                        static_cast<pid_t>(strtol(number.c_str(), nullptr, 10)));
        }
    }
    return std::move(listing).finish(file_to_query(*directory_).get());
}

// The holder of the first lock that is held. Of its hash, a byte has all but the last three bits.
std::string file_locks::any_holder() {
    std::string holder = holder_in(note_at(offsets_at(WHOLE_BYTE, &words_)));
    struct flock held = range_at(0, NAMES_END, F_WRLCK);
    unique_fd file = file_to_query(*directory_);
    bool found = fcntl(file.get(), F_OFD_GETLK, &held) == 0 && held.l_type != F_UNLCK;
    for (uint64_t last = 0; found && holder.empty() && last < 8; ++last) {
        uint64_t hash = static_cast<uint64_t>(held.l_start) << 3 | last;
        uint64_t note = words_.holder_of(hash)->load(std::memory_order_relaxed);
        if ((note & TAG_BITS) == (hash & TAG_BITS)) holder = holder_in(note);
    }
    return holder;
}

}  // namespace keyview::host
