// Folds the names of a database and a service.
#include "keyview/core/service_names.h"

int32_t prsr_fold_service_names(const prsr_ctx *ctx, const char *function, const char *dbname,
                                const char *srvname, prsr_service_names *names) {
    if (!prsr_alloc_name(ctx, function, dbname, &names->database)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_service_name(ctx, function, srvname, &names->service)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &names->database);
    prsr_fold_name(srvname, &names->service);
    prsr_map_service_name(&names->service);
    return PRSR_SUCCESS;
}
