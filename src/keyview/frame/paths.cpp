// Folding of names and composing of paths.
#include "keyview/frame/paths.h"

#include <string.h>

#include "platform/txt.h"

static bool alloc_copy(const prsr_ctx *ctx, const char *function, const char *name, size_t spare,
                       prsr_name *copy) {
    copy->length = strlen(name);
    copy->block.text =
        static_cast<char *>(prsr_alloc(ctx->mem, ctx->trc, function, copy->length + spare));
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

// Writes the elements, joined, and a zero byte; the caller knows that there is room.
static void write_elements(char *to, bool lead, prsr_elements elements) {
    for (const std::string_view element : elements) {
        if (lead) *to++ = '.';
        lead = true;
        memcpy(to, element.data(), element.size());
        to += element.size();
    }
    *to = '\0';
}

static size_t joined_length(bool lead, prsr_elements elements) {
    size_t length = elements.size() - (lead ? 0 : 1);
    for (const std::string_view element : elements)
        length += element.size();
    return length;
}

bool prsr_join_path(void *mem, void *trc, const char *function, size_t spare,
                    prsr_elements elements, prsr_block *path) {
    const size_t size = joined_length(false, elements) + 1 + spare;
    path->text = static_cast<char *>(tmem_allocm(mem, size));
    if (path->text == nullptr) {
        if (function != nullptr) prsr_report_allocation(trc, function, size);
        return false;
    }
    write_elements(path->text, false, elements);
    return true;
}

bool prsr_alloc_path(void *trc, const char *function, size_t block_capacity,
                     prsr_path_block *path) {
    path->text = static_cast<char *>(prsr_alloc(path->mem, trc, function, block_capacity));
    path->capacity = block_capacity;
    return path->text != nullptr;
}

bool prsr_extend_path(prsr_path *path, size_t kept, prsr_elements elements) {
    const bool lead = kept > 0;
    const size_t more = joined_length(lead, elements);
    path->length = kept;
    path->text[kept] = '\0';
    if (more >= path->capacity - kept) return false;
    write_elements(path->text + kept, lead, elements);
    path->length = kept + more;
    return true;
}
