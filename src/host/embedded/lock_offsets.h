// Where the lock of a name is: its bytes in the lock file, its words in shared memory, and the note of
// its holder. file_locks.h has the meaning of the bytes, shared_words.h that of the words.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/embedded/shared_words.h"
#include "host/registry/backend.h"

namespace keyview::host {

constexpr off_t GATE = off_t{1} << 62;
constexpr off_t NAMES_END = off_t{1} << 61;  // of the bytes of names
constexpr off_t WRITERS_BYTE = NAMES_END;    // is not among all locks, nor its gate and turn
constexpr off_t WHOLE_BYTE = NAMES_END + 2;

struct lock_offsets {
    std::string_view name;  // "" where the turn is beside the gate
    off_t byte;
    off_t gate;
    shared_words::hint *hint;
    shared_words::hint *waits;
    shared_words::holder_note *holder;
    uint64_t tag;  // further bits of the hash, as a note has them

    off_t turn() const;  // needed by writers alone
};

lock_offsets offsets_at(off_t byte, shared_words *words);
// "" is the lock that orders the writers.
lock_offsets offsets_of(std::string_view name, shared_words *words);

// A range for a call on the lock file.
struct flock range_at(off_t at, off_t length, int type);

// ---- Notes of holders ---------------------------------------------------------------------------

// Of a note (shared_words.h).
constexpr uint64_t PROCESS_BITS = (uint64_t{1} << 22) - 1;
constexpr uint64_t TAG_BITS = ((uint64_t{1} << 10) - 1) << 22;

// A note of this process, from now on.
uint64_t new_note(const lock_offsets &at);

// The note about a lock that is held; 0 if there is none.
uint64_t note_at(const lock_offsets &at);

pid_t process_in(uint64_t note);

// The process of a note, for people; "" if it does not run any more.
std::string holder_in(uint64_t note);

// The holder of a lock that is held, or of all locks; "" if it is not known.
std::string holder_of(const lock_offsets &at, shared_words *words);

}  // namespace keyview::host
