// Makes and ends contexts. The services start in the order memory, registry client, trace, thread
// support, lock service; a failed start undoes the steps before it.
#include "keyview/core/context.h"

#include "platform/kvtc.h"
#include "platform/lksv.h"
#include "platform/trcd.h"

constexpr char COMPONENT[] = "PRSR";

static int32_t start_registry(void **reg) {
    char error_text[1024] = {};
    uint64_t error_size = sizeof error_text;
    return kvtc_init_ext(reg, 3, error_text, &error_size, 0);
}

static void *register_trace() {
    void *trc = trcdcompreg("PRSR component", COMPONENT, 1024, 0, 0, 0, 0);
    if (trc != nullptr) {
        trcdprintf(trc, TRCD_REGISTRATION,
                   "prsr_init_ext: Successfully registered comp [%s] in trcd.", COMPONENT);
    } else {
        trcdprintft(trc, TRCD_FAILURE, "prsr_init_ext: Unable to register comp [%s] in trcd.",
                    COMPONENT);
    }
    return trc;
}

static int32_t start_lock_service(void *status, const prsr_ctx *ctx, void **lk) {
    const uint16_t version[2] = {2, 1};
    const uint64_t block[8] = {reinterpret_cast<uintptr_t>(ctx->mem),
                               reinterpret_cast<uintptr_t>(&tmem_allocm),
                               reinterpret_cast<uintptr_t>(&tmem_freem),
                               reinterpret_cast<uintptr_t>(ctx->thr),
                               0,
                               208,
                               0,
                               0};
    return lksvsinit(status, lk, version, block, 272);
}

// Thread support and locks, which start after the registry client.
static int32_t complete_context(void *status, prsr_ctx *ctx, void *lk) {
    ctx->thr = thrsini();
    if (ctx->thr == nullptr) return PRSR_ERR_THREADS;

    if (lk == nullptr) {
        if (start_lock_service(status, ctx, &lk) != 0) return PRSR_ERR_LOCK;
        ctx->owns_lk = 1;
    }
    ctx->lk = lk;
    tmem_fill_tag(ctx, PRSR_CTX_TAG);
    return PRSR_SUCCESS;
}

int32_t prsr_init_ext(void *status, prsr_ctx **ctx_out, void *lk) noexcept {
    void *mem = pgcinit(0);
    auto *ctx = static_cast<prsr_ctx *>(tmem_allocm(mem, sizeof(prsr_ctx)));
    *ctx_out = ctx;
    if (ctx == nullptr) return PRSR_ERR_MEMORY;

    void *reg = nullptr;
    if (start_registry(&reg) != 0) {
        tmem_freem(mem, ctx);
        *ctx_out = nullptr;
        return PRSR_ERR_REGISTRY;
    }
    ctx->trc = register_trace();
    ctx->reg = reg;
    ctx->mem = mem;
    ctx->owns_lk = 0;

    const int32_t rc = complete_context(status, ctx, lk);
    if (rc != PRSR_SUCCESS) {
        (void)kvtc_terminate(reg);  // the earlier failure is the one to return
        tmem_freem(mem, ctx);
        *ctx_out = nullptr;
    }
    return rc;
}

int32_t prsr_init(void *status, prsr_ctx **ctx_out) noexcept {
    return prsr_init_ext(status, ctx_out, nullptr);
}

int32_t prsr_terminate(void *status, prsr_ctx *ctx) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    void *mem = ctx->mem;
    void *reg = ctx->reg;
    // A failure to end a service has no remedy.
    if (ctx->owns_lk != 0) (void)lksvsterm(status, ctx->lk);
    (void)kvtc_terminate(reg);
    tmem_freem(mem, ctx);
    return PRSR_SUCCESS;
}
