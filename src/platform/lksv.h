// Cluster-wide named locks, with the thread support that their service asks for. Declared here,
// supplied by the host process.
//
// status is a block of the caller's that the lock service may write to. Every call but thrsini
// returns 0 for success.
#ifndef KEYVIEW_PLATFORM_LKSV_H
#define KEYVIEW_PLATFORM_LKSV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// A thread-support context, or null.
void *thrsini(void);

// Makes a lock service handle.
//
// version  two 16-bit values, 2 and 1
// block    eight 64-bit words: the memory handle, the addresses of tmem_allocm and tmem_freem, the
//          thread-support context, 0, 208, 0, 0
// size     272
int32_t lksvsinit(void *status, void **lk, const uint16_t *version, const uint64_t *block,
                  uint64_t size);

int32_t lksvsterm(void *status, void *lk);

// Take the named lock, shared or exclusive: 0 once it is held.
int32_t lksvlsshrlock(void *status, void *lk, const char *name);
int32_t lksvlsmutexlock(void *status, void *lk, const char *name);

// Releases the named lock, whichever its mode.
int32_t lksvlsunlock(void *status, void *lk, const char *name);

#ifdef __cplusplus
}
#endif
#endif
