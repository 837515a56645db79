// The roster of a service: the instances and nodes on which it runs, and which of them take over.
// All or nothing: any missing key ends it with an empty result.
#include "keyview/core/locks.h"
#include "keyview/core/registry.h"
#include "keyview/core/service_names.h"
#include "model/words.h"
#include "platform/trcd.h"
#include "platform/txt.h"

constexpr char ROSTER[] = "prsr_get_srv_instances";

namespace {
// The out-arguments.
struct roster_out {
    char ***inst_names;
    char ***node_names;
    int32_t **avail;
    uint32_t *inst_count;
};

// One roster with its buffers. Read upwards, the members are the order of release: the lock goes
// before the keys.
struct roster {
    roster(prsr_ctx *owner, const roster_out &result)
        : ctx(owner), out(result), names(owner), list(owner->reg), key(owner->reg), lock(owner) {}

    [[nodiscard]] prsr_reader reader() const { return {ctx, ROSTER}; }

    prsr_ctx *ctx;
    roster_out out;
    prsr_service_names names;
    char list_text[PATH_CAPACITY];
    char key_text[PATH_CAPACITY];
    char subkey[NAME_CAPACITY];
    char value_text[VALUE_CAPACITY];
    prsr_path list_path{list_text, sizeof list_text};  // of the instances that the service names
    prsr_path key_path{key_text, sizeof key_text};     // of the key that is read
    prsr_value value{value_text};
    prsr_key list;
    prsr_key key;
    prsr_held_lock lock;
};
}  // namespace

static int32_t open_list(roster *run) {
    if (prsr_open_reported(run->reader(), run->list_path.text, &run->list) == KVTC_SUCCESS) {
        return PRSR_SUCCESS;
    }
    *run->out.inst_names = nullptr;
    *run->out.node_names = nullptr;
    *run->out.avail = nullptr;
    return PRSR_ERR_REGISTRY;
}

// Enumerates for the first time. *count is 0 for a service without instances.
static int32_t count_instances(roster *run, uint32_t *count) {
    *count = 0;
    uint32_t length = 0;
    int32_t last = 0;
    const int32_t kv = prsr_next_subkey(run->list, run->subkey, sizeof run->subkey, &length, &last);
    if (kv == KVTC_ERR_NO_MORE_KEYS || (kv == KVTC_SUCCESS && last < 0)) return PRSR_SUCCESS;
    if (kv != KVTC_SUCCESS) {
        run->reader().report("kvtc_enum_key", run->list_path.text, kv);
        return PRSR_ERR_REGISTRY;
    }
    *count = static_cast<uint32_t>(last) + 1;
    return PRSR_SUCCESS;
}

// Allocates all three arrays before it checks any, so that the release may walk them.
static int32_t alloc_arrays(const roster &run, size_t count) {
    void *mem = run.ctx->mem;
    const size_t names_size = count * sizeof(char *);
    const size_t avail_size = count * sizeof(int32_t);
    *run.out.inst_names = static_cast<char **>(tmem_allocm(mem, names_size));
    *run.out.node_names = static_cast<char **>(tmem_allocm(mem, names_size));
    *run.out.avail = static_cast<int32_t *>(tmem_allocm(mem, avail_size));
    size_t missing = 0;
    if (*run.out.avail == nullptr) missing = avail_size;
    if (*run.out.inst_names == nullptr || *run.out.node_names == nullptr) missing = names_size;
    if (missing == 0) return PRSR_SUCCESS;
    prsr_report_allocation(run.ctx, ROSTER, missing);
    return PRSR_ERR_MEMORY;
}

// Opens the key in key_path, if it fits, and reads its value; the key stays open.
static int32_t read_key(roster *run, bool fits) {
    if (!fits) return PRSR_ERR_ARGUMENT;
    const prsr_reader reader = run->reader();
    const char *path = run->key_path.text;
    if (prsr_open_reported(reader, path, &run->key) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    return prsr_read_reported(reader, path, run->key, &run->value) == KVTC_SUCCESS
               ? PRSR_SUCCESS
               : PRSR_ERR_REGISTRY;
}

// Copies the value that was read last into a slot.
static int32_t keep_value(const roster &run, char **slot) {
    *slot = prsr_copy_text(run.ctx, ROSTER, run.value.buffer, run.value.length());
    return *slot != nullptr ? PRSR_SUCCESS : PRSR_ERR_MEMORY;
}

// ---- First pass: names and types ----------------------------------------------------------------

static int32_t read_instance(roster *run, uint32_t slot) {
    const size_t kept = run->list_path.length;
    int32_t rc = read_key(run, prsr_extend_path(&run->key_path, kept, run->subkey));
    if (rc != PRSR_SUCCESS) return rc;
    rc = keep_value(*run, &(*run->out.inst_names)[slot]);
    if (rc != PRSR_SUCCESS) return rc;
    run->key.close();
    rc = read_key(run, prsr_extend_path(&run->key_path, kept, run->subkey, model::KEY_TYPE));
    if (rc != PRSR_SUCCESS) return rc;
    (*run->out.avail)[slot] = run->value.is(model::TYPE_AVAILABLE) ? 1 : 0;
    run->key.close();
    return PRSR_SUCCESS;
}

// Reads the promised instances, the first one's element already read. The count grows with them: an
// enumeration that ends early leaves a shorter roster, and a release walks no further than was
// read.
static int32_t read_instances(roster *run, uint32_t promised) {
    (void)prsr_start_path(&run->key_path, run->list_path.view());  // the same capacity
    for (uint32_t i = 0; i < promised; ++i) {
        *run->out.inst_count = i + 1;
        const int32_t rc = read_instance(run, i);
        if (rc != PRSR_SUCCESS) return rc;
        uint32_t length = 0;
        int32_t unread = 0;
        const int32_t kv =
            prsr_next_subkey(run->list, run->subkey, sizeof run->subkey, &length, &unread);
        if (kv == KVTC_ERR_NO_MORE_KEYS) return PRSR_SUCCESS;
        if (kv != KVTC_SUCCESS) {
            run->reader().report("kvtc_enum_subkey", run->list_path.text, kv);
            return PRSR_ERR_REGISTRY;
        }
    }
    return PRSR_SUCCESS;
}

// ---- Second pass: nodes -------------------------------------------------------------------------

static int32_t read_node(roster *run, size_t kept, uint32_t slot) {
    const char *name = (*run->out.inst_names)[slot];
    char **node = &(*run->out.node_names)[slot];
    char folded[VALUE_CAPACITY + 1];  // a name came from a value buffer and got its zero byte
    txtlo(folded, name);
    int32_t rc = read_key(run, prsr_extend_path(&run->key_path, kept, folded, model::KEY_NODE));
    if (rc != PRSR_SUCCESS) return rc;
    run->key.close();
    rc = keep_value(*run, node);
    if (rc != PRSR_SUCCESS) return rc;
    trcdprintf(run->ctx->trc, TRCD_PROGRESS, "\tPRSR %d: inst=%s on node %s, avail=%d",
               static_cast<int>(slot), name, *node, (*run->out.avail)[slot]);
    return PRSR_SUCCESS;
}

static int32_t read_nodes(roster *run) {
    if (!prsr_start_path(&run->key_path, DB_ROOT, run->names.database.element(),
                         model::KEY_INSTANCE)) {
        return PRSR_ERR_ARGUMENT;
    }
    const size_t kept = run->key_path.length;
    for (uint32_t i = 0; i < *run->out.inst_count; ++i) {
        const int32_t rc = read_node(run, kept, i);
        if (rc != PRSR_SUCCESS) return rc;
    }
    return PRSR_SUCCESS;
}

// ---- The roster ---------------------------------------------------------------------------------

static int32_t read_roster(roster *run) {
    int32_t rc = open_list(run);
    if (rc != PRSR_SUCCESS) return rc;
    uint32_t count = 0;
    rc = count_instances(run, &count);
    if (rc != PRSR_SUCCESS || count == 0) return rc;
    *run->out.inst_count = 1;  // there is at least one, and a failure releases the arrays
    rc = alloc_arrays(*run, count);
    if (rc != PRSR_SUCCESS) return rc;
    rc = read_instances(run, count);
    if (rc != PRSR_SUCCESS) return rc;
    return read_nodes(run);
}

static int32_t make_roster(void *status, prsr_ctx *ctx, const char *dbname, const char *srvname,
                           const roster_out &out) {
    roster run(ctx, out);
    const int32_t rc = prsr_fold_service_names(ctx, ROSTER, dbname, srvname, &run.names);
    if (rc != PRSR_SUCCESS) return rc;
    if (!prsr_start_path(&run.list_path, DB_ROOT, run.names.database.element(), model::KEY_SERVICE,
                         run.names.service.element(), model::KEY_INSTANCES)) {
        return PRSR_ERR_ARGUMENT;
    }
    // Every failure of the lock counts as an unreadable registry.
    if (prsr_lock_keyview(status, ctx, run.names.database.text(), LOCK_SHARED, &run.lock.token) !=
        PRSR_SUCCESS) {
        return PRSR_ERR_REGISTRY;
    }
    return read_roster(&run);
}

int32_t prsr_get_srv_instances(void *status, prsr_ctx *ctx, const char *dbname, const char *srvname,
                               char ***inst_names, char ***node_names, int32_t **avail,
                               uint32_t *inst_count) noexcept {
    *inst_count = 0;
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    if (dbname == nullptr || srvname == nullptr) return PRSR_ERR_ARGUMENT;

    trcdprintf(ctx->trc, TRCD_PROGRESS,
               "prsr_get_srv_instances: List of instances for db %s srv %s", dbname, srvname);
    const int32_t rc =
        make_roster(status, ctx, dbname, srvname, {inst_names, node_names, avail, inst_count});
    if (rc != PRSR_SUCCESS) {
        // With a count of 0 nothing was built, and the caller's pointers are undefined.
        if (*inst_count > 0) {
            (void)prsr_release_srv_instances(status, ctx, *inst_names, *node_names, *avail,
                                             *inst_count);
        }
        *inst_count = 0;
    }
    return rc;
}

int32_t prsr_release_srv_instances(void *, prsr_ctx *ctx, char **inst_names, char **node_names,
                                   int32_t *avail, uint32_t inst_count) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;
    if (inst_count == 0) return PRSR_SUCCESS;

    prsr_free_strings(ctx->mem, inst_names, inst_count);
    prsr_free_strings(ctx->mem, node_names, inst_count);
    prsr_free_block(ctx->mem, avail);
    return PRSR_SUCCESS;
}
