// Hashes of names, and the bits of notes.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "host/embedded/lock_offsets.h"

#include <ctime>

#include "host/support/fork.h"
#include "host/support/process.h"

namespace keyview::host {

struct flock range_at(off_t at, off_t length, int type) {
    struct flock range = {};
    range.l_type = static_cast<short>(type);
    range.l_whence = SEEK_SET;
    range.l_start = at;
    range.l_len = length;
    return range;
}

off_t lock_offsets::turn() const {
    if (name.empty()) return gate + 1;
    return static_cast<off_t>(XXH3_64bits_withSeed(name.data(), name.size(), 1) >> 3) + GATE;
}

static lock_offsets offsets_with(std::string_view name, off_t byte, uint64_t hash,
                                 shared_words *words) {
    return {name,
            byte,
            byte + GATE,
            words->hint_of(hash),
            words->waits_of(hash),
            words->holder_of(hash),
            hash & TAG_BITS};
}

lock_offsets offsets_at(off_t byte, shared_words *words) {
    return offsets_with({}, byte, static_cast<uint64_t>(byte), words);
}

lock_offsets offsets_of(std::string_view name, shared_words *words) {
    if (name.empty()) return offsets_at(WRITERS_BYTE, words);
    uint64_t hash = XXH3_64bits(name.data(), name.size());
    return offsets_with(name, static_cast<off_t>(hash >> 3), hash, words);
}

// ---- Notes of holders ---------------------------------------------------------------------------

uint64_t new_note(const lock_offsets &at) {
    timespec now = {};
    (void)clock_gettime(CLOCK_REALTIME_COARSE, &now);
    return static_cast<uint64_t>(now.tv_sec) << 32 | at.tag |
           (static_cast<uint64_t>(process_number()) & PROCESS_BITS);
}

pid_t process_in(uint64_t note) {
    return static_cast<pid_t>(note & PROCESS_BITS);
}

uint64_t note_at(const lock_offsets &at) {
    uint64_t note = at.holder->load(std::memory_order_relaxed);
    return (note & TAG_BITS) == at.tag ? note : 0;
}

std::string holder_in(uint64_t note) {
    return note == 0 ? "" : process_since(process_in(note), static_cast<int64_t>(note >> 32));
}

std::string holder_of(const lock_offsets &at, shared_words *words) {
    std::string holder = holder_in(note_at(at));
    return holder.empty() ? holder_in(note_at(offsets_at(WHOLE_BYTE, words))) : holder;
}

}  // namespace keyview::host
