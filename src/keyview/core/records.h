// The guard of a public record while it is built.
#pragma once

#include <utility>

#include "keyview/core/context.h"

// Released by its own release operation at the end of the scope, unless it was taken. Empty at
// first.
template <typename Record, int32_t (*Release)(void *, prsr_ctx *, Record *)>
struct prsr_record {
    prsr_record(void *status_block, prsr_ctx *owner) : status(status_block), ctx(owner) {}
    ~prsr_record() {
        if (cfg != nullptr) (void)Release(status, ctx, cfg);  // a live context cannot fail it
    }
    prsr_record(const prsr_record &) = delete;
    prsr_record &operator=(const prsr_record &) = delete;

    [[nodiscard]] Record *take() { return std::exchange(cfg, nullptr); }

    void *status;
    prsr_ctx *ctx;
    Record *cfg = nullptr;
};
