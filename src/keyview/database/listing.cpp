// The listing of databases in their registered case: the folded subkeys first, then the own value
// of each. The caller never receives the folded list.
#include "keyview/core/lists.h"
#include "keyview/core/locks.h"
#include "keyview/core/memory.h"
#include "keyview/core/paths.h"
#include "platform/trcd.h"

int32_t prsr_list_db(void *status, prsr_ctx *ctx, char ***db_list, uint32_t *db_count) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    const char *root = DB_ROOT.data();
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_list_db: Listing the databases");
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_list_db: Listing the databases under key %s", root);
    prsr_held_lock lock(ctx);
    const int32_t rc = prsr_lock_keyview(status, ctx, nullptr, LOCK_SHARED, &lock.token);
    if (rc != PRSR_SUCCESS) return rc;

    prsr_string_list folded(ctx->mem);
    // A failure leaves a count of 0, which lists no databases; the reader has logged it.
    (void)prsr_get_subkeys(ctx, root, &folded.items, db_count);
    folded.count = *db_count;
    const size_t size = *db_count * sizeof(char *);
    *db_list = static_cast<char **>(tmem_allocm(ctx->mem, size));
    if (*db_list == nullptr) {
        trcdprintf(ctx->trc, TRCD_FAILURE, "prsr_listdb: failed to allocate %d byte",
                   static_cast<int>(size));
        return PRSR_ERR_ARGUMENT;
    }
    return prsr_get_case_preserved_names(ctx, root, folded.items, *db_count, *db_list);
}

int32_t prsr_release_db_list(void *, prsr_ctx *ctx, char **db_list, uint32_t db_count) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    prsr_free_strings(ctx->mem, db_list, db_count);
    return PRSR_SUCCESS;
}
