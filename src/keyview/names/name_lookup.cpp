// The names of a database and of an instance in their registered case.
#include "keyview/core/paths.h"
#include "keyview/names/stored_name.h"

namespace {
// One lookup. Read upwards, the members are the order of release.
struct name_lookup {
    explicit name_lookup(prsr_ctx *ctx)
        : value(ctx->mem), instname(ctx), dbname(ctx), path(ctx->mem), key(ctx->reg) {}

    prsr_block value;
    prsr_name instname;  // empty for a database's lookup
    prsr_name dbname;
    prsr_path_block path;
    prsr_key key;
};
}  // namespace

// Reads the name at the path, if the path fits.
static int32_t look_up(prsr_ctx *ctx, const char *function, bool fits, name_lookup *lookup,
                       uint32_t bufsize, char *buf) {
    if (!fits) {
        buf[0] = '\0';
        return PRSR_ERR_ARGUMENT;
    }
    return prsr_read_stored_name(ctx, function, lookup->path.text, PRSR_ERR_NO_DATABASE,
                                 &lookup->key, &lookup->value, bufsize, buf);
}

int32_t prsr_get_spname(void *, prsr_ctx *ctx, const char *dbname, uint32_t bufsize,
                        char *buf) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    name_lookup lookup(ctx);
    if (!prsr_alloc_name(ctx, __func__, dbname, &lookup.dbname)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &lookup.dbname);
    if (!prsr_alloc_path(ctx, __func__, PATH_CAPACITY, &lookup.path)) return PRSR_ERR_MEMORY;
    const bool fits = prsr_start_path(&lookup.path, DB_ROOT, lookup.dbname.element());
    return look_up(ctx, __func__, fits, &lookup, bufsize, buf);
}

int32_t prsr_get_instance_name(void *, prsr_ctx *ctx, const char *dbname, const char *instname,
                               uint32_t bufsize, char *buf) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    name_lookup lookup(ctx);
    if (!prsr_alloc_name(ctx, __func__, dbname, &lookup.dbname)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_name(ctx, __func__, instname, &lookup.instname)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &lookup.dbname);
    prsr_fold_name(instname, &lookup.instname);
    if (!prsr_alloc_path(ctx, __func__, PATH_CAPACITY, &lookup.path)) return PRSR_ERR_MEMORY;
    const bool fits = prsr_start_path(&lookup.path, DB_ROOT, lookup.dbname.element(),
                                      model::KEY_INSTANCE, lookup.instname.element());
    return look_up(ctx, __func__, fits, &lookup, bufsize, buf);
}
