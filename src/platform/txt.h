// String folding. Declared here, supplied by the host process. Only letters of ASCII have a case.
#ifndef KEYVIEW_PLATFORM_TXT_H
#define KEYVIEW_PLATFORM_TXT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Fold n bytes to lower or upper case. target has n + 1 bytes or more, all zero.
void txtmlo(char *target, const char *source, uint64_t n);
void txtmup(char *target, const char *source, uint64_t n);

// A zero-terminated copy in lower case; target may hold an older text.
void txtlo(char *target, const char *source);

// 0 if the strings are equal apart from case.
int32_t txtclo(const char *a, const char *b);

// Replaces, in place, each occurrence of from by to. text stays zero-terminated and never exceeds
// capacity bytes. new_length may receive the length afterwards.
int32_t txtrep(char *text, uint64_t length, uint64_t capacity, const char *from,
               uint64_t from_length, const char *to, uint64_t to_length, uint64_t *new_length);

#ifdef __cplusplus
}
#endif
#endif
