// The cache of free blocks of each thread.
#include "host/support/block_cache.h"

#include <pthread.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace keyview::host {

// Classes of 16, 32, 64 ... 4096 bytes. Larger blocks are not cached.
static constexpr unsigned SMALLEST_BITS = 4;
static constexpr unsigned CLASSES = 9;
static constexpr size_t LARGEST = size_t{1} << (SMALLEST_BITS + CLASSES - 1);
static constexpr size_t MAX_KEPT_BYTES = size_t{16} << 20;  // of one thread

namespace {

// Precedes each block.
struct alignas(alignof(max_align_t)) head {
    uint32_t state;
    uint32_t size_class;
    head *next;  // of the cached blocks
};

enum : uint32_t { TAKEN = 0x4B56746B, GIVEN_BACK = 0x4B566766 };

struct kept_blocks {
    head *first[CLASSES];
    size_t bytes;
    bool registered;
    bool ended;
};

}  // namespace

// Accessed without a call; small enough for the static TLS that programs reserve for libraries
// loaded later.
static thread_local kept_blocks mine __attribute__((tls_model("initial-exec"))) = {};

static void end_of_thread(void *blocks) {
    auto *kept = static_cast<kept_blocks *>(blocks);
    kept->ended = true;
    kept->bytes = 0;
    for (head *&first : kept->first) {
        while (first != nullptr) {
            head *next = first->next;
            free(first);
            first = next;
        }
    }
}

// False if the end of this thread cannot be observed.
static bool register_thread() {
    struct end_key {
        end_key() : made(pthread_key_create(&key, end_of_thread) == 0) {}
        pthread_key_t key = 0;
        bool made;
    };
    static const end_key at_end;
    mine.registered = at_end.made && pthread_setspecific(at_end.key, &mine) == 0;
    return mine.registered;
}

static unsigned class_of(uint64_t size) {
    if (size <= size_t{1} << SMALLEST_BITS) return 0;
    return 64 - static_cast<unsigned>(__builtin_clzll(size - 1)) - SMALLEST_BITS;
}

static size_t bytes_of(uint32_t size_class) {
    return sizeof(head) + (size_t{1} << (size_class + SMALLEST_BITS));
}

static void *fresh_block(uint64_t size, uint32_t size_class) {
    if (size > PTRDIFF_MAX - sizeof(head)) return nullptr;
    auto *made = static_cast<head *>(calloc(1, sizeof(head) + size));
    if (made == nullptr) return nullptr;
    made->state = TAKEN;
    made->size_class = size_class;
    return made + 1;
}

void *allocate_block(uint64_t size) noexcept {
    if (size > LARGEST) return fresh_block(size, CLASSES);
    unsigned size_class = class_of(size);
    head *kept = mine.first[size_class];
    if (kept == nullptr) return fresh_block(size_t{1} << (size_class + SMALLEST_BITS), size_class);
    __builtin_prefetch(kept->next);
    mine.first[size_class] = kept->next;
    mine.bytes -= bytes_of(size_class);
    kept->state = TAKEN;
    return memset(kept + 1, 0, size);
}

void free_block(void *block) noexcept {
    head *given = static_cast<head *>(block) - 1;
    if (given->state != TAKEN) {
        (void)fputs("keyview: a block of memory was given back twice, or was never taken\n",
                    stderr);
        abort();
    }
    given->state = GIVEN_BACK;
    uint32_t size_class = given->size_class;
    bool full = size_class == CLASSES || mine.bytes + bytes_of(size_class) > MAX_KEPT_BYTES;
    if (full || mine.ended || (!mine.registered && !register_thread())) return free(given);
    given->next = mine.first[size_class];
    mine.first[size_class] = given;
    mine.bytes += bytes_of(size_class);
}

}  // namespace keyview::host
