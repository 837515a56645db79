// See large_heap.h.
#include "ctl/large_heap.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace keyview::ctl {

// What is made of a document of many small records takes about as much; pages that are never used cost
// nothing.
static constexpr size_t FOR_EACH_BYTE = 10;
static constexpr size_t SMALLEST_FILE = size_t{1} << 20;
static constexpr size_t LARGEST_HEAP = size_t{1} << 30;
static constexpr size_t HUGE_PAGE = size_t{2} << 20;

// A block for which the heap grows: too small for a mapping of its own, and larger than what is usually free.
static constexpr size_t BLOCK = size_t{127} << 10;
static constexpr int USUAL_PAD = 128 << 10;

static char *end_of_heap() {
    return static_cast<char *>(sbrk(0));
}

static char *next_huge_page(char *at) {
    return at + (HUGE_PAGE - reinterpret_cast<uintptr_t>(at) % HUGE_PAGE) % HUGE_PAGE;
}

void prepare_heap(size_t file_size) {
    if (file_size < SMALLEST_FILE) return;
    const size_t size = std::min(file_size, LARGEST_HEAP / FOR_EACH_BYTE) * FOR_EACH_BYTE;
    char *from = next_huge_page(end_of_heap());
    (void)mallopt(M_TRIM_THRESHOLD, static_cast<int>(LARGEST_HEAP));
    (void)mallopt(M_TOP_PAD, static_cast<int>(size));
    void *volatile grows = malloc(BLOCK);
    free(grows);
    (void)mallopt(M_TOP_PAD, USUAL_PAD);
    const ptrdiff_t grown = end_of_heap() - from;
    if (grown < static_cast<ptrdiff_t>(HUGE_PAGE)) return;  // another allocator, or no memory
    (void)madvise(from, static_cast<size_t>(grown), MADV_HUGEPAGE);
}

}  // namespace keyview::ctl
