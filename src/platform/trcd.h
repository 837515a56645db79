// Trace. Declared here, supplied by the host process.
#ifndef KEYVIEW_PLATFORM_TRCD_H
#define KEYVIEW_PLATFORM_TRCD_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    TRCD_FAILURE = 0,
    TRCD_REGISTRATION = 2,
    TRCD_PROGRESS = 4,
};

// Registers a component: description, name, 1024 and four zeros. A trace handle, or null.
void *trcdcompreg(const char *description, const char *name, int32_t limit, uint64_t zero_1,
                  uint64_t zero_2, uint64_t zero_3, uint64_t zero_4);

// Writes one line. A null handle breaks nothing.
void trcdprintf(void *trc, int32_t level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// The same for a component whose registration failed: trc is that null handle.
void trcdprintft(void *trc, int32_t level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
#endif
