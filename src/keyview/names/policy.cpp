// The failover policy of a service.
#include "keyview/names/policy.h"

#include "keyview/core/registry.h"
#include "keyview/core/service_names.h"
#include "platform/txt.h"

namespace {
struct policy_word {
    const char *word;
    int32_t policy;
};
}  // namespace

static const policy_word POLICY_WORDS[] = {
    {"BASIC", PRSR_RCN_BASIC},
    {"PRECONNECT", PRSR_RCN_PRECONNECT},
    {"AVAILABLE", PRSR_RCN_PRECONNECT},
    {"MUTUAL", PRSR_RCN_PRECONNECT},
};

int32_t prsr_parse_policy(const char *value) {
    for (const policy_word &row : POLICY_WORDS) {
        if (txtclo(value, row.word) == 0) return row.policy;
    }
    return PRSR_RCN_NONE;
}

int32_t prsr_get_service_rcn_policy(void *, prsr_ctx *ctx, const char *dbname, const char *srvname,
                                    int32_t *policy) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    prsr_block value(ctx->mem);
    prsr_service_names names(ctx);
    prsr_block path(ctx->mem);
    int32_t rc = prsr_fold_service_names(ctx, __func__, dbname, srvname, &names);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_join_path(ctx->mem, ctx->trc, __func__, 2, &path, DB_ROOT, names.database.element(),
                        "SERVICE", names.service.element(), "RCNPOLICY")) {
        return PRSR_ERR_MEMORY;
    }
    rc = prsr_open_get_value(ctx, ctx->reg, path.text, &value.text);
    if (rc == PRSR_ERR_MEMORY) return rc;
    *policy = rc == PRSR_SUCCESS ? prsr_parse_policy(value.text) : PRSR_RCN_NONE;
    return PRSR_SUCCESS;
}
