// Memory of the context: the one allocation that reports its failure, copies of counted text, and
// the guards that free blocks. tmem_allocm returns zeroed blocks, and callers depend on it: one
// byte is an empty string, a copy of n bytes in n + 1 ends in zero, an array starts with null
// slots.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <utility>

#include "keyview/core/context.h"

// Logs a failed allocation.
void prsr_report_allocation(const prsr_ctx *ctx, const char *function, size_t size);

// A zeroed block, or null after a line in the trace under the name of function.
[[nodiscard]] void *prsr_alloc(const prsr_ctx *ctx, const char *function, size_t size);

// n bytes of source and a zero byte, or null: without memory, and for a null mem. Logs nothing.
[[nodiscard]] char *prsr_strndup(void *mem, const char *source, size_t n);

// The same through prsr_alloc: a failure is reported.
[[nodiscard]] char *prsr_copy_text(const prsr_ctx *ctx, const char *function, const char *source,
                                   size_t n);

// One block, freed at the end of the scope. Empty until text is set.
struct prsr_block {
    explicit prsr_block(void *owner) : mem(owner) {}
    ~prsr_block() { release(); }
    prsr_block(const prsr_block &) = delete;
    prsr_block &operator=(const prsr_block &) = delete;

    void release() {
        if (text != nullptr) tmem_freem(mem, take());
    }
    [[nodiscard]] char *take() { return std::exchange(text, nullptr); }

    void *mem;
    char *text = nullptr;
};

// Frees a block unless it is null.
void prsr_free_block(void *mem, void *block);

// Frees the strings of an array, null slots allowed. strings may be null.
void prsr_free_slots(void *mem, char *const *strings, uint32_t count);

// The same, and then the array itself.
void prsr_free_strings(void *mem, char **strings, uint32_t count);

// A list of strings, freed at the end of the scope.
struct prsr_string_list {
    explicit prsr_string_list(void *owner) : mem(owner) {}
    ~prsr_string_list() { prsr_free_strings(mem, items, count); }
    prsr_string_list(const prsr_string_list &) = delete;
    prsr_string_list &operator=(const prsr_string_list &) = delete;

    void *mem;
    char **items = nullptr;
    uint32_t count = 0;
};
