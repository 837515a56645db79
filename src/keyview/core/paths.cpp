// Folding of names and composing of paths.
#include "keyview/core/paths.h"

#include <string.h>

#include "platform/txt.h"

static bool alloc_copy(const prsr_ctx *ctx, const char *function, const char *name, size_t spare,
                       prsr_name *copy) {
    copy->length = strlen(name);
    copy->block.text = static_cast<char *>(prsr_alloc(ctx, function, copy->length + spare));
    return copy->block.text != nullptr;
}

bool prsr_alloc_name(const prsr_ctx *ctx, const char *function, const char *name, prsr_name *copy) {
    return alloc_copy(ctx, function, name, 1, copy);
}

bool prsr_alloc_service_name(const prsr_ctx *ctx, const char *function, const char *name,
                             prsr_name *copy) {
    return alloc_copy(ctx, function, name, 2, copy);
}

void prsr_fold_name(const char *name, prsr_name *copy) {
    txtmlo(copy->block.text, name, copy->length);
}

void prsr_map_service_name(prsr_name *copy) {
    uint64_t unread = 0;
    (void)txtrep(copy->block.text, copy->length, copy->length + 2, ".", 1, "*", 1, &unread);
}

bool prsr_alloc_path(const prsr_ctx *ctx, const char *function, size_t block_capacity,
                     prsr_path_block *path) {
    path->text = static_cast<char *>(prsr_alloc(ctx, function, block_capacity));
    path->capacity = block_capacity;
    return path->text != nullptr;
}
