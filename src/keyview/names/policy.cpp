// The failover policy of a service.
#include "keyview/names/policy.h"

#include <iterator>

#include "keyview/core/registry.h"
#include "keyview/core/service_names.h"
#include "model/words.h"
#include "platform/txt.h"

static_assert(model::RCN_CODES[0] == PRSR_RCN_NONE && model::RCN_CODES[1] == PRSR_RCN_BASIC &&
              model::RCN_CODES[2] == PRSR_RCN_PRECONNECT);

int32_t prsr_parse_policy(const char *value) {
    // The first word is NONE, which every unknown word means as well.
    for (size_t i = 1; i < std::size(model::RCN_POLICIES); ++i) {
        if (txtclo(value, model::RCN_POLICIES[i]) == 0) return model::RCN_CODES[i];
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
    if (!prsr_join_path(ctx, __func__, 2, &path, DB_ROOT, names.database.element(),
                        model::KEY_SERVICE, names.service.element(), model::KEY_RCN_POLICY)) {
        return PRSR_ERR_MEMORY;
    }
    rc = prsr_open_get_value(ctx, path.text, &value.text);
    if (rc == PRSR_ERR_MEMORY) return rc;
    *policy = rc == PRSR_SUCCESS ? prsr_parse_policy(value.text) : PRSR_RCN_NONE;
    return PRSR_SUCCESS;
}
