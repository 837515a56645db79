// The cache of free blocks of each thread.
#include "host/support/block_cache.h"

#include <pthread.h>

#include <array>
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
    size_t room;  // bytes that may still be cached; 0 before registration and at the end
    bool registered;
};

}  // namespace

// Accessed without a call; small enough for the static TLS that programs reserve for libraries
// loaded later.
static thread_local kept_blocks mine __attribute__((tls_model("initial-exec"))) = {};

static void end_of_thread(void *blocks) {
    auto *kept = static_cast<kept_blocks *>(blocks);
    kept->room = 0;
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
    if (mine.registered) mine.room = MAX_KEPT_BYTES;
    return mine.registered;
}

static unsigned class_of(uint64_t size) {
    if (size <= size_t{1} << SMALLEST_BITS) return 0;
    return 64 - static_cast<unsigned>(__builtin_clzll(size - 1)) - SMALLEST_BITS;
}

static constexpr size_t block_size(uint32_t size_class) {
    return size_t{1} << (size_class + SMALLEST_BITS);
}

// What a cached block counts; more than any room for the class of blocks that are not cached.
static constexpr auto COUNTED_BYTES = [] {
    std::array<size_t, CLASSES + 1> bytes = {};
    for (uint32_t i = 0; i < CLASSES; ++i)
        bytes[i] = sizeof(head) + block_size(i);
    bytes[CLASSES] = SIZE_MAX;
    return bytes;
}();

// Without a call for the classes of most blocks.
static void *zeroed(void *block, uint64_t size, uint32_t size_class) {
    switch (size_class) {
        case 0:
            return memset(block, 0, block_size(0));
        case 1:
            return memset(block, 0, block_size(1));
        case 2:
            return memset(block, 0, block_size(2));
        default:
            return memset(block, 0, size);
    }
}

// The rare cases stay apart from the usual ones, which save no registers for them.
[[gnu::noinline]] static void *fresh_block(uint64_t size, uint32_t size_class) {
    if (size > PTRDIFF_MAX - sizeof(head)) return nullptr;
    auto *made = static_cast<head *>(calloc(1, sizeof(head) + size));
    if (made == nullptr) return nullptr;
    made->state = TAKEN;
    made->size_class = size_class;
    return made + 1;
}

[[gnu::noinline, gnu::cold]] static void freed_twice() {
    (void)fputs("keyview: a block of memory was given back twice, or was never taken\n", stderr);
    abort();
}

static void keep(head *given, size_t bytes) {
    given->next = mine.first[given->size_class];
    mine.first[given->size_class] = given;
    mine.room -= bytes;
}

// Where the cache is full, blocks of other sizes leave it: they are of what was done before, and the
// thread gives back what it does now.
static void make_room(const head *given, size_t bytes) {
    for (uint32_t other = CLASSES; other-- > 0 && bytes > mine.room;) {
        while (other != given->size_class && bytes > mine.room && mine.first[other] != nullptr) {
            head *left = mine.first[other];
            mine.first[other] = left->next;
            mine.room += COUNTED_BYTES[other];
            free(left);
        }
    }
}

[[gnu::noinline]] static void keep_or_free(head *given, size_t bytes) {
    if (given->size_class == CLASSES) return free(given);
    if (!mine.registered) (void)register_thread();
    make_room(given, bytes);
    if (bytes > mine.room) return free(given);
    keep(given, bytes);
}

void *allocate_block(uint64_t size) noexcept {
    if (size > LARGEST) return fresh_block(size, CLASSES);
    unsigned size_class = class_of(size);
    head *kept = mine.first[size_class];
    if (kept == nullptr) return fresh_block(block_size(size_class), size_class);
    __builtin_prefetch(kept->next);
    mine.first[size_class] = kept->next;
    mine.room += COUNTED_BYTES[size_class];
    kept->state = TAKEN;
    return zeroed(kept + 1, size, size_class);
}

void free_block(void *block) noexcept {
    head *given = static_cast<head *>(block) - 1;
    if (given->state != TAKEN) freed_twice();
    given->state = GIVEN_BACK;
    memset(block, 0, block_size(0));  // a record that is used after its end has no tag
    size_t bytes = COUNTED_BYTES[given->size_class];
    if (bytes > mine.room) return keep_or_free(given, bytes);
    keep(given, bytes);
}

}  // namespace keyview::host
