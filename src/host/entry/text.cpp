// String folding. Only letters of ASCII have a case, whatever the locale.
#include <array>
#include <cstring>

#include "platform/txt.h"

static constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

static char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c & ~0x20) : c;
}

// A table, as each flag of a record is compared.
static unsigned char folded(char c) {
    static constexpr auto LOWER = [] {
        std::array<unsigned char, 256> all = {};
        for (size_t i = 0; i < all.size(); ++i)
            all[i] = static_cast<unsigned char>(lower(static_cast<char>(i)));
        return all;
    }();
    return LOWER[static_cast<unsigned char>(c)];
}

// How often from occurs, counted from the left without overlaps.
static uint64_t occurrences(const char *text, uint64_t length, const char *from,
                            uint64_t from_length) {
    uint64_t count = 0;
    for (uint64_t at = 0; at + from_length <= length;) {
        bool here = memcmp(text + at, from, from_length) == 0;
        count += here;
        at += here ? from_length : 1;
    }
    return count;
}

extern "C" {

void txtmlo(char *target, const char *source, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i)
        target[i] = lower(source[i]);
}

void txtmup(char *target, const char *source, uint64_t n) {
    for (uint64_t i = 0; i < n; ++i)
        target[i] = upper(source[i]);
}

void txtlo(char *target, const char *source) {
    txtmlo(target, source, strlen(source) + 1);
}

int32_t txtclo(const char *a, const char *b) {
    for (size_t i = 0;; ++i) {
        const int x = folded(a[i]), y = folded(b[i]);
        if (x != y || x == 0) return x - y;
    }
}

// Non-zero, with the text as it was, if the result would not fit. The text is first moved to where
// the result will end and then written from the front: what is still to be read is never overtaken.
int32_t txtrep(char *text, uint64_t length, uint64_t capacity, const char *from,
               uint64_t from_length, const char *to, uint64_t to_length, uint64_t *new_length) {
    if (from_length == 0) return 1;
    uint64_t count = occurrences(text, length, from, from_length);
    uint64_t result = length - count * from_length + count * to_length;
    if (result >= capacity) return 1;

    uint64_t read = result > length ? result - length : 0;
    uint64_t end = read + length;
    memmove(text + read, text, length);
    char *write = text;
    while (read < end) {
        if (end - read >= from_length && memcmp(text + read, from, from_length) == 0) {
            read += from_length;
            memcpy(write, to, to_length);
            write += to_length;
        } else {
            *write++ = text[read++];
        }
    }
    *write = '\0';
    if (new_length != nullptr) *new_length = result;
    return 0;
}

}  // extern "C"
