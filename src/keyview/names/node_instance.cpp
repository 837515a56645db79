// The instance of a database on a node. The tree has no index from nodes to instances, so the
// instances are walked until one names the node; the caller's buffer holds their elements
// meanwhile.
#include <string.h>

#include "keyview/core/locks.h"
#include "keyview/core/paths.h"
#include "keyview/core/registry.h"
#include "keyview/names/stored_name.h"

constexpr char NODE_INSTANCE[] = "prsr_get_node_instance_name";

namespace {
// One walk. Read upwards, the members are the order of release.
struct node_walk {
    node_walk(prsr_ctx *owner, uint32_t size, char *buffer)
        : ctx(owner),
          bufsize(size),
          buf(buffer),
          value(owner->mem),
          nodename(owner),
          dbname(owner),
          path(owner->mem),
          key(owner->reg),
          lock(owner) {}

    // Ends a walk without a name.
    int32_t end(int32_t rc) const {
        buf[0] = '\0';
        return rc;
    }

    prsr_ctx *ctx;
    uint32_t bufsize;
    char *buf;
    prsr_block value;  // the one read last
    prsr_name nodename;
    prsr_name dbname;
    prsr_path_block path;
    size_t list_length = 0;  // of the key whose subkeys are walked
    prsr_key key;
    prsr_held_lock lock;
};
}  // namespace

static int32_t alloc_walk(node_walk *walk, const char *dbname, const char *nodename) {
    prsr_ctx *ctx = walk->ctx;
    if (!prsr_alloc_name(ctx, NODE_INSTANCE, dbname, &walk->dbname)) return PRSR_ERR_MEMORY;
    if (!prsr_alloc_name(ctx, NODE_INSTANCE, nodename, &walk->nodename)) return PRSR_ERR_MEMORY;
    prsr_fold_name(dbname, &walk->dbname);
    prsr_fold_name(nodename, &walk->nodename);
    return prsr_alloc_path(ctx, NODE_INSTANCE, PATH_CAPACITY, &walk->path) ? PRSR_SUCCESS
                                                                           : PRSR_ERR_MEMORY;
}

static int32_t open_list(node_walk *walk) {
    const prsr_reader reader(walk->ctx, NODE_INSTANCE);
    if (!prsr_start_path(&walk->path, DB_ROOT, walk->dbname.element(), model::KEY_INSTANCE)) {
        return walk->end(PRSR_ERR_ARGUMENT);
    }
    walk->list_length = walk->path.length;
    return prsr_open_reported(reader, walk->path.text, &walk->key) == KVTC_SUCCESS
               ? PRSR_SUCCESS
               : PRSR_ERR_REGISTRY;
}

// Reads the value of the key in path, if it fits, in place of the one before.
static int32_t read_value(node_walk *walk, bool fits) {
    if (!fits) return PRSR_ERR_ARGUMENT;
    walk->value.release();
    return prsr_open_get_value(walk->ctx, walk->path.text, &walk->value.text);
}

static int32_t report_enumeration(node_walk *walk, int32_t kv) {
    (void)prsr_extend_path(&walk->path, walk->list_length);  // back to the list's own path
    prsr_reader(walk->ctx, NODE_INSTANCE).report("kvtc_enum_subkey", walk->path.text, kv);
    return walk->end(PRSR_ERR_REGISTRY);
}

static int32_t give_name(node_walk *walk) {
    const int32_t rc =
        read_value(walk, prsr_extend_path(&walk->path, walk->list_length, walk->buf));
    if (rc != PRSR_SUCCESS) return walk->end(rc);
    return prsr_copy_out(walk->value.text, walk->bufsize, walk->buf);
}

static int32_t walk_instances(node_walk *walk) {
    for (;;) {
        uint32_t length = 0;
        int32_t last = 0;
        const int32_t kv = prsr_next_subkey(walk->key, walk->buf, walk->bufsize, &length, &last);
        if (kv == KVTC_ERR_NO_MORE_KEYS) return walk->end(PRSR_SUCCESS);
        if (kv != KVTC_SUCCESS) return report_enumeration(walk, kv);
        const int32_t rc = read_value(
            walk, prsr_extend_path(&walk->path, walk->list_length, walk->buf, model::KEY_NODE));
        if (rc != PRSR_SUCCESS) return walk->end(rc);
        if (strcmp(walk->value.text, walk->nodename.text()) == 0) return give_name(walk);
        if (last == 0) return walk->end(PRSR_SUCCESS);
    }
}

int32_t prsr_get_node_instance_name(void *status, prsr_ctx *ctx, const char *dbname,
                                    const char *nodename, uint32_t bufsize, char *buf) noexcept {
    if (!prsr_ctx_live(ctx)) return PRSR_ERR_CONTEXT;

    node_walk walk(ctx, bufsize, buf);
    int32_t rc = alloc_walk(&walk, dbname, nodename);
    if (rc != PRSR_SUCCESS) return rc;
    rc = prsr_lock_keyview(status, ctx, walk.dbname.text(), LOCK_SHARED, &walk.lock.token);
    if (rc != PRSR_SUCCESS) return rc;
    rc = open_list(&walk);
    if (rc != PRSR_SUCCESS) return rc;
    return walk_instances(&walk);
}
