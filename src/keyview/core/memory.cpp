// Allocation with its report, and copies of counted text.
#include "keyview/core/memory.h"

#include <string.h>

#include "platform/trcd.h"

void prsr_report_allocation(const prsr_ctx *ctx, const char *function, size_t size) {
    trcdprintf(ctx->trc, TRCD_FAILURE, "%s: failed to allocate %d bytes", function,
               static_cast<int>(size));
}

void *prsr_alloc(const prsr_ctx *ctx, const char *function, size_t size) {
    void *block = tmem_allocm(ctx->mem, size);
    if (block == nullptr) prsr_report_allocation(ctx, function, size);
    return block;
}

static char *fill_copy(void *block, const char *source, size_t n) {
    auto *copy = static_cast<char *>(block);
    if (copy == nullptr) return nullptr;
    memcpy(copy, source, n);
    copy[n] = '\0';
    return copy;
}

char *prsr_strndup(void *mem, const char *source, size_t n) {
    if (mem == nullptr) return nullptr;
    return fill_copy(tmem_allocm(mem, n + 1), source, n);
}

char *prsr_copy_text(const prsr_ctx *ctx, const char *function, const char *source, size_t n) {
    return fill_copy(prsr_alloc(ctx, function, n + 1), source, n);
}

void prsr_free_block(void *mem, void *block) {
    if (block != nullptr) tmem_freem(mem, block);
}

void prsr_free_slots(void *mem, char *const *strings, uint32_t count) {
    if (strings == nullptr) return;
    for (uint32_t i = 0; i < count; ++i)
        prsr_free_block(mem, strings[i]);
}

void prsr_free_strings(void *mem, char **strings, uint32_t count) {
    prsr_free_slots(mem, strings, count);
    prsr_free_block(mem, strings);
}
