// Zeroed blocks of memory for callers that allocate and free thousands of them in a row. Each
// thread caches freed blocks in classes by size, and reuses them without a call of the process's
// allocator.
//
// Another thread than the one that allocated a block may free it: its cache receives the block. The
// cache of a thread is bounded, and freed when the thread ends.
#pragma once

#include <cstdint>

namespace keyview::host {

// A block of size bytes, 0 included, every byte zero, aligned for any type; null if there is no
// memory.
void *allocate_block(uint64_t size) noexcept;

// block comes from allocate_block and is not free yet: otherwise the process aborts.
void free_block(void *block) noexcept;

}  // namespace keyview::host
