// The key tree: its fixed elements, how a caller's name becomes an element, and how elements become
// a path. Every path of the library is composed here, and its capacity travels along.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string_view>

#include "keyview/core/context.h"
#include "keyview/core/memory.h"
#include "model/roots.h"

constexpr std::string_view DB_ROOT = model::DB_ROOT;

constexpr size_t PATH_CAPACITY = 2048;  // of a path block of fixed size, the zero byte included

// ---- Names --------------------------------------------------------------------------------------

// A private copy of a caller's name, folded to lower case. First all copies of an operation are
// allocated, then they are folded.
struct prsr_name {
    explicit prsr_name(const prsr_ctx *ctx) : block(ctx->mem) {}

    [[nodiscard]] const char *text() const { return block.text; }
    [[nodiscard]] std::string_view element() const { return {block.text, length}; }

    prsr_block block;
    size_t length = 0;
};

// Allocate the copy of a name: its length + 1 bytes, for a service name 2. False after a report.
[[nodiscard]] bool prsr_alloc_name(const prsr_ctx *ctx, const char *function, const char *name,
                                   prsr_name *copy);
[[nodiscard]] bool prsr_alloc_service_name(const prsr_ctx *ctx, const char *function,
                                           const char *name, prsr_name *copy);

void prsr_fold_name(const char *name, prsr_name *copy);

// Turns each "." of a folded service name into "*", so that it stays one element.
void prsr_map_service_name(prsr_name *copy);

// ---- Paths in a buffer --------------------------------------------------------------------------

// A path that is cut back and extended in place. Nothing is scanned: the length is known. The
// buffer has another owner.
struct prsr_path {
    [[nodiscard]] std::string_view view() const { return {text, length}; }

    char *text = nullptr;
    size_t capacity = 0;  // bytes of text, the zero byte included
    size_t length = 0;
};

// A path in a block of ctx->mem, freed at the end of the scope.
struct prsr_path_block : prsr_path {
    explicit prsr_path_block(void *owner) : mem(owner) {}
    ~prsr_path_block() { prsr_free_block(mem, text); }
    prsr_path_block(const prsr_path_block &) = delete;
    prsr_path_block &operator=(const prsr_path_block &) = delete;

    void *mem;
};

// Allocates a block of capacity bytes. False after a report.
[[nodiscard]] bool prsr_alloc_path(const prsr_ctx *ctx, const char *function, size_t block_capacity,
                                   prsr_path_block *path);

// ---- Writing elements ---------------------------------------------------------------------------

inline char *prsr_put_element(char *to, std::string_view element) {
    *to = '.';
    memcpy(to + 1, element.data(), element.size());
    return to + 1 + element.size();
}

template <typename... Views>
bool prsr_append_elements(prsr_path *path, size_t kept, Views... elements) {
    const size_t more = (size_t{0} + ... + (elements.size() + 1));
    path->length = kept;
    path->text[kept] = '\0';
    if (more >= path->capacity - kept) return false;
    char *end = path->text + kept;
    ((end = prsr_put_element(end, elements)), ...);
    *end = '\0';
    path->length = kept + more;
    return true;
}

template <typename... Views>
bool prsr_join_elements(const prsr_ctx *ctx, const char *function, size_t spare, prsr_block *block,
                        std::string_view first, Views... elements) {
    const size_t size = first.size() + (size_t{0} + ... + (elements.size() + 1)) + 1 + spare;
    block->text = static_cast<char *>(tmem_allocm(ctx->mem, size));
    if (block->text == nullptr) {
        if (function != nullptr) prsr_report_allocation(ctx, function, size);
        return false;
    }
    prsr_path path{block->text, size, 0};
    memcpy(path.text, first.data(), first.size());
    return prsr_append_elements(&path, first.size(), elements...);
}

// ---- Extending a path in place ------------------------------------------------------------------

// Templates, so that the length of a fixed element is known where it is written: nothing is
// scanned.

// Cuts the path to its first kept characters and appends "." and each element. False, and the path
// as it was kept, if it would not fit.
template <typename... Elements>
[[nodiscard]] bool prsr_extend_path(prsr_path *path, size_t kept, const Elements &...elements) {
    return prsr_append_elements(path, kept, std::string_view(elements)...);
}

// Makes the path the first element and, behind it, "." and each further one. False if it would not
// fit.
template <typename... Elements>
[[nodiscard]] bool prsr_start_path(prsr_path *path, std::string_view first,
                                   const Elements &...elements) {
    if (first.size() >= path->capacity) return false;
    memcpy(path->text, first.data(), first.size());
    return prsr_append_elements(path, first.size(), std::string_view(elements)...);
}

// ---- Paths in a block of exactly their size -----------------------------------------------------

// Joins elements by "." in a new block of their length, the zero byte and spare bytes. False after
// a report, or without one if function is null.
template <typename... Elements>
[[nodiscard]] bool prsr_join_path(const prsr_ctx *ctx, const char *function, size_t spare,
                                  prsr_block *path, const Elements &...elements) {
    return prsr_join_elements(ctx, function, spare, path, std::string_view(elements)...);
}
