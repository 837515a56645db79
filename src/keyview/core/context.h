// The context of a caller: the handles of the outside services that every operation works with. It
// is the only state of the library.
#pragma once

#include <stdint.h>

#include "keyview/if/prsr.h"
#include "platform/tmem.h"

#define PRSR_CTX_TAG "PRSRCTXA"

struct prsr_ctx {
    char tag[16];     // set by the last step of initialisation: without it this is no context
    void *mem;        // first argument of all memory calls
    void *reg;        // first argument of all registry calls
    void *thr;        // only handed to the lock service
    void *lk;         // lock service, made here or given by the caller
    void *trc;        // first argument of all log calls; null if the registration failed
    int32_t owns_lk;  // 1 if this context made lk and must end it
};

// The test that opens every public operation.
[[nodiscard]] inline bool prsr_ctx_live(const prsr_ctx *ctx) {
    return ctx != nullptr && tmem_check_tag(ctx, PRSR_CTX_TAG) != 0;
}
