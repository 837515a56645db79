// A list of names as the compared stores build it: plain malloc, for free_list.
#pragma once

#include <stdint.h>
#include <stdlib.h>

namespace keyview::bench {

struct name_list {
    char **names;
    uint32_t count;
};

// An array that doubles, where its length is not known before its end.
template <typename T>
void append(T **list, uint32_t *count, T item) {
    const bool full = (*count & (*count - 1)) == 0;
    if (full) {
        const size_t room = *count == 0 ? 1 : size_t{*count} * 2;
        *list = static_cast<T *>(realloc(*list, room * sizeof(T)));
    }
    (*list)[(*count)++] = item;
}

}  // namespace keyview::bench
