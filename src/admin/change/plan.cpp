// See plan.h. Plans are made from one moment of the tree. The plan that is carried out was made
// under its locks and is bound to its revision, so what is reported is what was written.
#include "admin/change/plan.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "admin/key_map.h"
#include "model/locks.h"

namespace keyview::admin {

// Above this many changes the tree is read as a whole.
static constexpr size_t FEW_CHANGES = 16;
// Above this many locks they are taken as one.
static constexpr size_t FEW_LOCKS = 32;
// How often a plan is made anew because the tree changed under it. The last one is carried out
// without regard to changes elsewhere, so that a busy registry cannot keep it off.
static constexpr int TRIES = 8;

static void report_step(const change_options &options, const std::string &text) {
    if (options.step) options.step(text);
}

namespace {

struct plan {
    change_result reported;
    std::vector<change> changes;  // those that change something
    std::set<std::string> locks;
};

}  // namespace

// ---- Planning -----------------------------------------------------------------------------------

static std::vector<part> parts_of(const change_request &request, const change_options &options,
                                  bool whole) {
    std::vector<part> parts;
    for (const auto *keys : {&options.present, &options.absent})
        for (const std::string &path : *keys)
            parts.push_back({path});
    if (whole) {
        parts.push_back({ROOT, reach::all_below});
        return parts;
    }
    for (const change &one : request.changes) {
        parts.push_back({one.path, one.value ? reach::key_alone : reach::all_below});
        for (std::string_view parent = parent_path(one.path); !parent.empty();
             parent = parent_path(parent)) {
            parts.push_back({std::string(parent)});
        }
    }
    for (const std::string &path : request.examines)
        parts.push_back({path});
    return parts;
}

// Does to the keys what the registry does. A put creates missing parents.
static void carry_out(const change &one, key_map *keys) {
    if (!one.value) return remove_below(one.path, keys);
    for (std::string_view parent = parent_path(one.path); !parent.empty();
         parent = parent_path(parent)) {
        keys->emplace(parent, "");
    }
    (*keys)[one.path] = *one.value;
}

// Removals of what no put of the request stands for; of a whole branch, its top alone.
static std::vector<change> pruning(const key_map &before, const change_request &request,
                                   const std::string &within) {
    key_map kept;
    for (const change &one : request.changes)
        carry_out(one, &kept);
    std::vector<change> out;
    for (const auto &[path, value] : before) {
        bool ours = (request.prunes_all || below_a_root(path)) &&
                    (within.empty() || path_within(path, within));
        bool gone = !out.empty() && path_within(path, out.back().path);
        if (ours && !gone && kept.count(path) == 0) out.push_back({path, std::nullopt});
    }
    return out;
}

static bool changes_something(const change &one, const key_map &before) {
    auto old = before.find(one.path);
    if (!one.value) return old != before.end();
    return old == before.end() || old->second != *one.value;
}

static plan plan_for(const key_map &before, const change_request &request,
                     const change_options &options) {
    std::vector<change> all;
    if (options.prune) all = pruning(before, request, options.prune_within);
    all.insert(all.end(), request.changes.begin(), request.changes.end());
    key_map after = before;
    for (const change &one : all)
        carry_out(one, &after);
    plan made;
    made.reported.changes = differences(before, after);
    made.locks = request.locks;
    for (const key_change &one : made.reported.changes)
        if (below_a_root(one.path)) made.locks.insert(lock_of(one.path));
    made.reported.locks.assign(made.locks.begin(), made.locks.end());
    for (change &one : all)
        if (changes_something(one, before)) made.changes.push_back(std::move(one));
    return made;
}

static void check_keys(const key_map &before, const change_options &options) {
    for (const std::string &path : options.present)
        if (before.count(path) == 0)
            throw error(KEYVIEW_FAILURE_NOT_FOUND, "there is no key " + path);
    for (const std::string &path : options.absent)
        if (before.count(path) > 0)
            throw error(KEYVIEW_FAILURE_USAGE, "there is a key " + path + " already");
}

// The plan as of one moment. Without a registry the tree is empty, at revision 0.
static plan make_plan(const registry *keys, const change_request &request,
                      const change_options &options) {
    key_map before;
    uint64_t revision = 0;
    bool whole = options.prune || request.changes.size() > FEW_CHANGES;
    std::vector<std::string> damaged;
    if (keys != nullptr)
        revision = keys->read(parts_of(request, options, whole), &before, &damaged);
    for (const std::string &path : damaged)
        before.emplace(path, DAMAGED_VALUE);
    check_keys(before, options);
    if (request.check) request.check(before);
    if (options.if_revision != 0 && options.if_revision != revision) {
        throw error(KEYVIEW_FAILURE_CHANGED, "the tree is at revision " + std::to_string(revision) +
                                                 ", not " + std::to_string(options.if_revision) +
                                                 "; nothing was written");
    }
    plan made = plan_for(before, request, options);
    made.reported.revision = revision;
    return made;
}

// ---- Carrying out -------------------------------------------------------------------------------

static int64_t lock_wait_ms() {
    int64_t wait_ms = keyview_host_lock_wait();
    if (wait_ms < 0) check(keyview_host_last_error_kind());
    return wait_ms;
}

// The names are sorted, so that two programs that lock several never wait for each other in a ring.
// All of them together are waited for as long as one lock may be.
static std::vector<held_lock> lock_all(const registry &keys, const std::set<std::string> &names,
                                       const change_options &options) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    auto deadline = steady_clock::now() + milliseconds(lock_wait_ms());
    std::vector<held_lock> held;
    if (names.size() > FEW_LOCKS) {
        report_step(options, "waits for " + std::to_string(names.size()) + " locks");
        held.push_back(keys.lock_all(names, lock_wait_ms()));
        return held;
    }
    for (const std::string &name : names) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        report_step(options, "waits for the lock " + name);
        held.push_back(keys.lock(name, false, std::max<int64_t>(left.count(), 0)));
    }
    return held;
}

// False if the tree changed meanwhile so that the plan must be made anew.
static bool try_to_carry_out(const registry &keys, const std::set<std::string> &locks,
                             const change_request &request, const change_options &options,
                             bool last, change_result *out) {
    std::vector<held_lock> held = lock_all(keys, locks, options);
    plan made = make_plan(&keys, request, options);
    report_step(options, "writes " + std::to_string(made.changes.size()) + " changes");
    if (!std::includes(locks.begin(), locks.end(), made.locks.begin(), made.locks.end())) {
        if (!last) return false;
        throw error(KEYVIEW_FAILURE_CHANGED, "the tree changed meanwhile, again and again");
    }
    if (!made.changes.empty() && options.before_write) options.before_write(made.reported);
    bool any_revision = last && options.if_revision == 0;
    try {
        if (!made.changes.empty())
            keys.apply(made.changes, held, any_revision ? 0 : made.reported.revision);
    } catch (const error &failed) {
        if (failed.kind != KEYVIEW_FAILURE_CHANGED || options.if_revision != 0 || last) throw;
        return false;
    }
    *out = std::move(made.reported);
    return true;
}

change_result change_registry(const std::string &url, const change_request &request,
                              const change_options &options) {
    std::optional<registry> keys = registry::open_if_present(url);
    // What must find a key creates no registry for it.
    if (!keys && !options.present.empty()) keys = registry::open(url);
    for (int n = 1;; ++n) {
        plan made = make_plan(keys ? &*keys : nullptr, request, options);
        if (options.dry_run) return std::move(made.reported);
        // Nothing is created before the request has passed all checks.
        if (!keys) keys = registry::create(url);
        if (try_to_carry_out(*keys, made.locks, request, options, n == TRIES, &made.reported))
            return std::move(made.reported);
    }
}

}  // namespace keyview::admin
