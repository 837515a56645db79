// Memory and tags. The context is the process: there is nothing to keep in one.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "host/support/block_cache.h"
#include "platform/tmem.h"

static constexpr size_t TAG_LENGTH = 8;

extern "C" {

void *pgcinit(int32_t /*mode*/) {
    static char process_context;
    return &process_context;
}

// Sanitizers see faults only in blocks that come and go one by one.
#ifdef KEYVIEW_SANITIZED

void *tmem_allocm(void * /*mem*/, uint64_t size) {
    if (size > PTRDIFF_MAX) return nullptr;
    return calloc(1, size == 0 ? 1 : size);
}

void tmem_freem(void * /*mem*/, void *block) {
    free(block);
}

#else

void *tmem_allocm(void * /*mem*/, uint64_t size) {
    return keyview::host::allocate_block(size);
}

void tmem_freem(void * /*mem*/, void *block) {
    if (block != nullptr) keyview::host::free_block(block);
}

#endif

// The ninth byte is zero, so that a debugger shows the tag as a string.
void tmem_fill_tag(void *address, const char *tag) {
    char bytes[TAG_LENGTH + 1] = {};
    memcpy(bytes, tag, strnlen(tag, TAG_LENGTH));
    memcpy(address, bytes, sizeof(bytes));
}

int32_t tmem_check_tag(const void *address, const char *tag) {
    char bytes[TAG_LENGTH] = {};
    memcpy(bytes, tag, strnlen(tag, TAG_LENGTH));
    return memcmp(address, bytes, TAG_LENGTH) == 0 ? 1 : 0;
}

}  // extern "C"
