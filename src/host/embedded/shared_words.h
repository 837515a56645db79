// The words at the head of the lock file, which all processes that use a registry share in memory.
//
//     1,024 of 4 bytes   hints: whether a writer requests a lock with this hash
//     512 of 8 bytes     change counts of parts of the tree; odd while a change is under way
//     1,024 of 4 bytes   hints: whether somebody waits for a lock with this hash
//     1,024 of 8 bytes   notes of the holders of locks with this hash; a file of an earlier release
//                        ends before them and is made longer
//
// A note is the latest holder's process number (22 bits), further bits of the hash (10) and the
// seconds since 1970 at which it got the lock (32); 0 is none. It is for people: only the lock byte
// says who holds what, and a note that a killed process left names nobody that runs.
//
// A part is a key of three elements with all below it, as a database is; several parts share a
// count. A count goes up before and after each change of a part. So two reads of
// the same even count saw the same part, also if a writer was killed in between: then the count
// stays odd until the next change.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string_view>

#include "host/embedded/directory.h"
#include "host/support/unique.h"

namespace keyview::host {

class shared_words {
  public:
    explicit shared_words(std::shared_ptr<const registry_directory> directory)
        : directory_(std::move(directory)) {}
    ~shared_words();

    using hint = std::atomic<uint32_t>;
    using change_count = std::atomic<uint64_t>;
    using holder_note = std::atomic<uint64_t>;

    hint *hint_of(uint64_t lock_hash) { return &words()->hints[lock_hash % HINTS]; }

    hint *waits_of(uint64_t lock_hash) { return &words()->waits[lock_hash % HINTS]; }
    auto &hints() { return words()->hints; }
    holder_note *holder_of(uint64_t lock_hash) { return &words()->holders[lock_hash % HINTS]; }

    // The count of the part that a key is in; null for a key above all parts.
    change_count *count_of(std::string_view path);

    // All of them.
    change_count *begin() { return words()->counts; }
    change_count *end() { return words()->counts + COUNTS; }

  private:
    static constexpr size_t HINTS = 1024;
    static constexpr size_t COUNTS = 512;
    struct layout {
        hint hints[HINTS];
        change_count counts[COUNTS];
        hint waits[HINTS];
        holder_note holders[HINTS];
    };
    static_assert(hint::is_always_lock_free && change_count::is_always_lock_free,
                  "other processes use the words");

    layout *words() {
        layout *mapped = words_.load(std::memory_order_acquire);
        return mapped == nullptr ? map() : mapped;
    }
    layout *map();

    std::shared_ptr<const registry_directory> directory_;
    std::atomic<layout *> words_{nullptr};
};

// Notifies readers of a change, from before it until it is done or given up. Only for the holder of
// the write lock.
class change_notice : unique {
  public:
    explicit change_notice(shared_words *words) : words_(words) {}
    ~change_notice();

    void add(std::string_view path);

  private:
    void add(shared_words::change_count *count);

    shared_words *words_;
    std::set<shared_words::change_count *> counts_;
};

}  // namespace keyview::host
