// See whole_tree.h.
#include "admin/care/whole_tree.h"

#include <algorithm>
#include <utility>

#include "admin/registry.h"
#include "model/roots.h"

namespace keyview::admin {

namespace {

struct inspection_call : callback_guard {
    key_map *keys;
    problem_list *damage;
};

}  // namespace

static void add_damage(void *arg, keyview_bytes location, keyview_bytes reason) {
    auto *call = static_cast<inspection_call *>(arg);
    call->run([&] { call->damage->add(text_of(location), text_of(reason)); });
}

static void add_sound_row(void *arg, keyview_bytes path, const keyview_bytes *value) {
    auto *call = static_cast<inspection_call *>(arg);
    call->run([&] {
        if (path_within(text_of(path), ROOT)) (*call->keys)[text_of(path)] = text_of(*value);
    });
}

inspected inspect_registry(key_map *keys, problem_list *damage) {
    inspected out;
    inspection_call call{{}, keys, damage};
    int32_t rc = keyview_registry_check(add_damage, add_sound_row, &call, &out.keys, &out.pages);
    call.finish(rc == KEYVIEW_FAILURE_NOT_FOUND ? KEYVIEW_FAILURE_REGISTRY : rc);
    return out;
}

// False if the inspection fails as well, or finds nothing.
static bool read_around_damage(whole_tree *tree) {
    tree->keys.clear();
    try {
        (void)inspect_registry(&tree->keys, &tree->damage);
    } catch (const error &) {
        return false;
    }
    return !tree->damage.empty();
}

whole_tree read_whole_tree(bool salvage, const char *text) {
    whole_tree tree;
    try {
        tree.revision = registry::open().read({{ROOT, reach::all_below}}, &tree.keys);
    } catch (const error &failed) {
        if (failed.kind != KEYVIEW_FAILURE_CONTENT || !read_around_damage(&tree)) throw;
    }
    if (tree.damage.empty() || (salvage && !tree.keys.empty())) return tree;
    problem_list first;
    for (const problem &found : tree.damage.kept())
        first.add(found.place, found.reason);
    first.throw_if_any(text);
    return tree;
}

}  // namespace keyview::admin
