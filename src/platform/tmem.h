// Memory and tags. Declared here, supplied by the host process.
#ifndef KEYVIEW_PLATFORM_TMEM_H
#define KEYVIEW_PLATFORM_TMEM_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The memory context of the process. mode is 0.
void *pgcinit(int32_t mode);

// A block with every byte zero, or null. A size of 0 gives a block too.
void *tmem_allocm(void *mem, uint64_t size);

// Gives a block back. A null block is ignored.
void tmem_freem(void *mem, void *block);

// Writes an 8-character tag at an address, in at most 12 bytes.
void tmem_fill_tag(void *address, const char *tag);

// Non-zero if the tag is at the address.
int32_t tmem_check_tag(const void *address, const char *tag);

#ifdef __cplusplus
}
#endif
#endif
