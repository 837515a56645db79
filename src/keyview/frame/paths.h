// The key tree: its fixed elements, how a caller's name becomes an element, and how elements become
// a path. Every path of the library is composed here, and its capacity travels along.
#ifndef KEYVIEW_FRAME_PATHS_H
#define KEYVIEW_FRAME_PATHS_H

#include <stddef.h>
#include <stdint.h>

#include <initializer_list>
#include <string_view>

#include "keyview/frame/context.h"
#include "keyview/frame/memory.h"

constexpr std::string_view DB_ROOT = "DATABASE.DATABASES";
constexpr std::string_view NODEAPPS_ROOT = "DATABASE.NODEAPPS";

constexpr size_t PATH_CAPACITY = 2048;  // of a path block of fixed size, the zero byte included

using prsr_elements = std::initializer_list<std::string_view>;

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

// ---- Paths in a block of exactly their size -----------------------------------------------------

// Joins elements by "." in a new block of their length, the zero byte and spare bytes. False after
// a report, or without one if function is null.
[[nodiscard]] bool prsr_join_path(void *mem, void *trc, const char *function, size_t spare,
                                  prsr_elements elements, prsr_block *path);

// ---- Paths in a buffer --------------------------------------------------------------------------

// A path that is cut back and extended in place. Nothing is scanned: the length is known. The
// buffer is somebody else's.
struct prsr_path {
    [[nodiscard]] std::string_view view() const { return {text, length}; }

    char *text = nullptr;
    size_t capacity = 0;  // bytes of text, the zero byte included
    size_t length = 0;
};

// A path in a block of ctx->mem, given back at the end of the scope.
struct prsr_path_block : prsr_path {
    explicit prsr_path_block(void *owner) : mem(owner) {}
    ~prsr_path_block() { prsr_free_block(mem, text); }
    prsr_path_block(const prsr_path_block &) = delete;
    prsr_path_block &operator=(const prsr_path_block &) = delete;

    void *mem;
};

// Allocates a block of capacity bytes. False after a report.
[[nodiscard]] bool prsr_alloc_path(void *trc, const char *function, size_t block_capacity,
                                   prsr_path_block *path);

// Makes the path its first kept characters and, behind them, "." and each element; with kept 0 the
// first element opens the path. False, and the path as it was kept, if it would not fit.
[[nodiscard]] bool prsr_extend_path(prsr_path *path, size_t kept, prsr_elements elements);

#endif
