// The role of a database: a code for the caller, a word in the registry.
#include <string.h>

#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "model/words.h"
#include "platform/txt.h"

constexpr int32_t ROLE_COUNT = sizeof model::ROLES / sizeof *model::ROLES;
static_assert(ROLE_COUNT == PRSR_ROLE_SNAPSHOT_STANDBY + 1, "a word for each code");

static bool join_role_path(const prsr_ctx *ctx, const char *function, const prsr_name &dbname,
                           prsr_block *path) {
    return prsr_join_path(ctx, function, 1, path, DB_ROOT, dbname.element(), model::KEY_ROLE);
}

// ---- Write --------------------------------------------------------------------------------------

namespace {
// One write. Read upwards, the members are the order of release: the lock before the key, since a
// waiting writer should not pay for our round trip to the registry.
struct role_write {
    explicit role_write(prsr_ctx *ctx)
        : dbname(ctx), path(ctx->mem), key(ctx->reg), word(ctx->mem), lock(ctx) {}

    prsr_name dbname;
    prsr_block path;
    prsr_key key;
    prsr_block word;
    prsr_held_lock lock;
};
}  // namespace

static int32_t write_role(prsr_ctx *ctx, const char *function, role_write *write, uint32_t size) {
    const prsr_reader reader(ctx, function);
    if (prsr_open_reported(reader, write->path.text, &write->key) != KVTC_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    const int32_t kv =
        kvtc_set_value(ctx->reg, write->key.handle, KVTC_TYPE_STRING, write->word.text, size);
    if (kv == KVTC_SUCCESS) return PRSR_SUCCESS;
    reader.report("kvtc_set_value", write->path.text, kv);
    return PRSR_ERR_REGISTRY;
}

int32_t prsr_set_db_role(void *status, prsr_ctx *ctx, const char *dbname, int32_t role) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    role_write write(ctx);
    if (!prsr_alloc_name(ctx, __func__, dbname, &write.dbname)) return PRSR_ERR_MEMORY;
    if (role < 0 || role >= ROLE_COUNT) return PRSR_ERR_ROLE;
    const std::string_view word = model::ROLES[role];
    write.word.text = prsr_copy_text(ctx, __func__, word.data(), word.size());
    if (write.word.text == nullptr) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &write.dbname);
    if (!join_role_path(ctx, __func__, write.dbname, &write.path)) return PRSR_ERR_MEMORY;
    const int32_t rc =
        prsr_lock_keyview(status, ctx, write.dbname.text(), LOCK_SHARED, &write.lock.token);
    if (rc != PRSR_SUCCESS) return rc;
    return write_role(ctx, __func__, &write, static_cast<uint32_t>(word.size()) + 1);
}

// ---- Read ---------------------------------------------------------------------------------------

// The role whose word is the text, apart from case; -1 if there is none. upper has VALUE_CAPACITY
// zeroed bytes, and a longer text is no role.
static int32_t role_of(const char *text, char *upper) {
    const size_t length = strlen(text);
    if (length >= VALUE_CAPACITY) return -1;
    txtmup(upper, text, length);
    for (int32_t role = 0; role < ROLE_COUNT; ++role) {
        if (strcmp(upper, model::ROLES[role]) == 0) return role;
    }
    return -1;
}

int32_t prsr_get_db_role(void *, prsr_ctx *ctx, const char *dbname, int32_t *role) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    prsr_name name(ctx);
    prsr_block path(ctx->mem);
    prsr_block upper(ctx->mem);
    prsr_block text(ctx->mem);
    if (!prsr_alloc_name(ctx, __func__, dbname, &name)) return PRSR_ERR_MEMORY;
    upper.text = static_cast<char *>(prsr_alloc(ctx, __func__, VALUE_CAPACITY));
    if (upper.text == nullptr) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &name);
    if (!join_role_path(ctx, __func__, name, &path)) return PRSR_ERR_MEMORY;
    const int32_t rc = prsr_open_get_value(ctx, path.text, &text.text);
    if (rc != PRSR_SUCCESS) return rc;
    const int32_t found = role_of(text.text, upper.text);
    if (found < 0) return PRSR_ERR_ROLE;
    *role = found;
    return PRSR_SUCCESS;
}
