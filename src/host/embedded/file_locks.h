// Named locks of one machine: byte ranges of the registry's lock file.
//
// A name is the byte at a 62-bit hash of it. At that offset + 2^62 stands its gate: an exclusive
// holder keeps the gate from before its wait for the byte until its release, and a shared one only
// passes if nobody keeps it, so that a writer is not held up for ever by readers that come and go.
// To ask for the gate is a system call, which a reader saves while the hint of the name says that
// there is no writer. A hint is a word (shared_words.h) that a writer sets before each of its tries
// and a reader that finds the gate open clears; a wrong one costs a call or lets a reader pass once
// more, for only the byte decides who holds the lock. At a further hash + 2^62 lies the turn:
// whoever could not have the gate at once waits for the turn first and gives it up with the gate in
// hand, and nobody passes one who has the turn. So a writer that releases and asks again at once
// does not shut out the others.
//
// The locks belong to open file descriptions (F_OFD_SETLK), one for each lock that is held. So
// threads exclude each other, too, and the kernel frees the locks of a process that dies; a forked
// child closes the descriptors, which would keep the parent's locks alive.
#ifndef KEYVIEW_HOST_EMBEDDED_FILE_LOCKS_H
#define KEYVIEW_HOST_EMBEDDED_FILE_LOCKS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "host/embedded/directory.h"
#include "host/embedded/shared_words.h"
#include "host/registry/backend.h"
#include "host/support/fork.h"

namespace keyview::host {

// Descriptors of the lock file that hold no lock at present.
class lock_descriptors {
  public:
    lock_descriptors() { idle_.reserve(MAX_IDLE); }
    lock_descriptors(const lock_descriptors &) = delete;
    lock_descriptors &operator=(const lock_descriptors &) = delete;
    ~lock_descriptors();

    int take(const registry_directory &directory);
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

    std::vector<lock_use> users(const std::vector<std::string> &names) override;

    shared_words *words() { return &words_; }

    // The lock that orders the writers of the store; no caller's lock has this name.
    static constexpr const char *WRITERS = "";

  private:
    friend class file_lock;

    std::shared_ptr<const registry_directory> directory_;
    per_process<lock_descriptors> descriptors_;
    shared_words words_;
};

}  // namespace keyview::host

#endif
