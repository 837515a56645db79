// Named locks of one machine: byte ranges of the registry's lock file.
//
// The lock of a name is the byte at a 61-bit hash of the name. Its gate is the byte 2^62 behind: a
// writer holds the gate from before its wait for the lock byte until its release, and a reader
// passes only an open gate, so that readers that come and go cannot starve a writer. Testing the
// gate is a system call, which a reader saves while the hint of the name is 0. A hint is a word
// (shared_words.h) that a writer sets before each try and that a reader clears when it finds the
// gate open; a wrong hint costs a call or admits one reader more, for only the lock byte decides.
// The turn is a byte at another hash + 2^62: a writer that finds the gate closed waits for the turn
// first and releases it once it holds the gate, and no other writer passes the owner of the turn.
// So a writer that releases the lock and requests it again at once does not shut out the others.
//
// All locks at once are all gates and then all bytes, two ranges in the place of any number of
// locks. The whole has a lock of its own, which one who wants all of them holds first; a writer that
// finds its gate closed asks for no other before. Who wants all of them and does not get them within
// a window opens the gates for a moment, so that holders of a lock that wait for a further one go
// on, and readers wait no longer than a window for a holder that does not end.
//
// A waiter watches the lock file with inotify: it is woken when a descriptor of the file is closed,
// as that of a holder that dies, and as that of a released lock if the hint says that somebody waits
// for it. Where the system grants no watch, and for a hint that is wrong, short sleeps are the net
// below.
//
// Who is granted a lock notes it in the shared words, for those who wait. The note decides nothing: a
// reader of it knows from the lock byte that the lock is held, and names the process only if it has
// run since that time.
//
// The locks belong to open file descriptions (F_OFD_SETLK), one for each lock that is held. So
// threads exclude each other, too, and the kernel frees the locks of a process that dies; a forked
// child closes the descriptors, which would keep the parent's locks alive.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/embedded/directory.h"
#include "host/embedded/shared_words.h"
#include "host/registry/backend.h"
#include "host/support/fork.h"

namespace keyview::host {

// Descriptors of the lock file that hold no lock at present, or its watches that nobody reads.
class lock_descriptors {
  public:
    lock_descriptors() { idle_.reserve(MAX_IDLE); }
    ~lock_descriptors();

    // An idle one, else what open returns.
    int take(const std::function<int()> &open);
    void give_back(int fd) noexcept;

  private:
    static constexpr size_t MAX_IDLE = 16;

    std::mutex mutex_;
    std::vector<int> idle_;
};

class file_locks : public lock_service, public std::enable_shared_from_this<file_locks> {
  public:
    explicit file_locks(const std::shared_ptr<const registry_directory> &directory)
        : directory_(directory), words_(directory) {}

    std::shared_ptr<held_lock> acquire(std::string_view name, lock_mode mode, wait_limit limit,
                                       const lock_cover &wanted = {}) override;

    std::shared_ptr<held_lock> acquire_all(wait_limit limit) override;

    std::vector<lock_use> users(const std::vector<std::string> &names) override;

    shared_words *words() { return &words_; }

    // The lock that orders the writers of the store; no caller's lock has this name.
    static constexpr const char *WRITERS = "";

  private:
    friend class file_lock;

    std::string any_holder();

    std::shared_ptr<const registry_directory> directory_;
    per_process<lock_descriptors> descriptors_;
    per_process<lock_descriptors> watches_;
    shared_words words_;
};

}  // namespace keyview::host
