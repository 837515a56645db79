// Zeroed blocks of memory for callers that take and give back thousands of them in a row. Each
// thread keeps some of the blocks that it gave back, in classes by size, and takes them again
// without asking the allocator of the process.
//
// A block may be given back by another thread than the one that took it: it then stays with that
// one. What a thread keeps has a bound, and goes back to the process when the thread ends.
#ifndef KEYVIEW_HOST_SUPPORT_BLOCK_CACHE_H
#define KEYVIEW_HOST_SUPPORT_BLOCK_CACHE_H

#include <cstdint>

namespace keyview::host {

// A block of size bytes, 0 included, every byte zero, aligned for any type; null if there is no
// memory.
void *take_block(uint64_t size) noexcept;

// block is one that take_block gave, and was not given back yet: the process ends if it is not.
void give_back_block(void *block) noexcept;

}  // namespace keyview::host

#endif
