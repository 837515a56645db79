// The domain of a database.
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "platform/trcd.h"

int32_t prsr_get_domain(void *, prsr_ctx *ctx, const char *dbname, char **domain) noexcept {
    if (dbname == nullptr || !prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    prsr_name name(ctx);
    prsr_block path(ctx->mem);
    if (!prsr_alloc_name(ctx, __func__, dbname, &name)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &name);
    if (!prsr_join_path(ctx, __func__, 1, &path, DB_ROOT, name.element(), model::KEY_DOMAIN)) {
        return PRSR_ERR_MEMORY;
    }
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_domain: key_name = [%s]", path.text);

    *domain = nullptr;
    prsr_block value(ctx->mem);
    const int32_t rc = prsr_open_get_value(ctx, path.text, &value.text);
    if (rc == PRSR_SUCCESS) *domain = value.take();
    return rc;
}

int32_t prsr_free_domain(prsr_ctx *ctx, char *domain) noexcept {
    if (ctx == nullptr || domain == nullptr) return PRSR_ERR_CONTEXT;
    tmem_freem(ctx->mem, domain);
    return PRSR_SUCCESS;
}
