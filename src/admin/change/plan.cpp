// See changes.h. Plans are made from one moment of the tree. The plan that is carried out was made
// under its locks and is bound to its revision, so what is told is what was written.
#include "admin/change/plan.h"

#include <algorithm>
#include <chrono>
#include <memory>

#include "admin/change/key_map.h"
#include "admin/entry.h"
#include "host/registry/lock_wait.h"
#include "host/support/error.h"
#include "model/path.h"

namespace keyview::admin {

using host::change;
using host::failure;
using host::host_error;

// Above this many changes the tree is read as a whole.
static constexpr size_t FEW_CHANGES = 16;
// How often a plan is made anew because the tree changed under it. The last one is carried out
// without regard to changes elsewhere, so that a busy registry cannot keep it off.
static constexpr int TRIES = 8;

static void tell_step(const change_options &options, const std::string &text) {
    if (options.step) options.step(text);
}

namespace {

struct plan {
    std::vector<key_change> told;
    std::vector<change> changes;  // those that change something
    std::set<std::string> locks;
    uint64_t revision = 0;
};

// The locks of a plan, held.
class lock_set {
  public:
    // The names are sorted, so that two programs that lock several never wait for each other in a
    // ring.
    lock_set(host::lock_service *locks, const std::set<std::string> &names,
             const change_options &options)
        : names_(names) {
        using std::chrono::milliseconds;
        using std::chrono::steady_clock;
        auto deadline = steady_clock::now() + milliseconds(host::lock_wait_ms());
        for (const std::string &name : names) {
            auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
            auto wait_ms = static_cast<uint32_t>(std::max<int64_t>(left.count(), 0));
            tell_step(options, "waits for the lock " + name);
            held_.push_back(locks->acquire(name, host::lock_mode::exclusive, wait_ms));
        }
    }

    bool covers(const std::set<std::string> &names) const {
        return std::includes(names_.begin(), names_.end(), names.begin(), names.end());
    }

    host::apply_terms terms(uint64_t revision) const {
        host::apply_terms terms;
        for (const auto &lock : held_)
            terms.fences.push_back(lock.get());
        terms.revision = revision;
        return terms;
    }

  private:
    std::set<std::string> names_;
    std::vector<std::shared_ptr<host::held_lock>> held_;
};

}  // namespace

// The keys that a wish touches, as they are.
static key_map present_keys(host::moment *keys, const wish &wanted, bool prune) {
    key_map before;
    if (keys == nullptr) return before;
    if (prune || wanted.changes.size() > FEW_CHANGES) {
        read_below(keys, TOP, reach::all_below, &before);
        return before;
    }
    for (const change &one : wanted.changes) {
        bool removes = one.what == change::kind::remove;
        read_below(keys, one.path, removes ? reach::all_below : reach::key_alone, &before);
        for (std::string_view parent = parent_path(one.path); !parent.empty();
             parent = parent_path(parent)) {
            read_below(keys, parent, reach::key_alone, &before);
        }
    }
    return before;
}

// Removals of what no put of the wish stands for; of a whole branch, its top alone.
static std::vector<change> pruning(const key_map &before, const wish &wanted) {
    key_map kept;
    for (const change &one : wanted.changes)
        carry_out(one, &kept);
    std::vector<change> out;
    for (const auto &[path, value] : before) {
        bool ours = wanted.within == wish::scope::all || below_a_root(path);
        bool gone = !out.empty() && path_within(path, out.back().path);
        if (ours && !gone && kept.count(path) == 0) out.push_back({change::kind::remove, path, ""});
    }
    return out;
}

static plan make_plan(host::moment *keys, const wish &wanted, const change_options &options) {
    plan made;
    if (keys != nullptr) made.revision = keys->current().tree;
    if (options.if_revision != 0 && options.if_revision != made.revision) {
        throw host_error(failure::changed,
                         "the tree is at revision " + std::to_string(made.revision) + ", not " +
                             std::to_string(options.if_revision) + "; nothing was written");
    }
    key_map before = present_keys(keys, wanted, options.prune);
    std::vector<change> all;
    if (options.prune) all = pruning(before, wanted);
    all.insert(all.end(), wanted.changes.begin(), wanted.changes.end());
    key_map after = before;
    for (const change &one : all)
        carry_out(one, &after);
    made.told = differences(before, after);
    made.locks = wanted.locks;
    for (const key_change &one : made.told)
        if (below_a_root(one.path)) made.locks.insert(lock_of(one.path));
    for (change &one : all) {
        auto old = before.find(one.path);
        bool there = old != before.end();
        bool removes = one.what == change::kind::remove;
        if (removes ? there : !there || old->second != one.value)
            made.changes.push_back(std::move(one));
    }
    return made;
}

static void tell(plan made, change_result *out) {
    out->changes = std::move(made.told);
    out->locks.assign(made.locks.begin(), made.locks.end());
    out->revision = made.revision;
}

// False if problems are the result.
static bool fits(host::moment *keys, const wish &wanted, change_result *out) {
    problem_list problems;
    if (wanted.check) wanted.check(keys, &problems);
    if (problems.empty()) return true;
    problems.report(wanted.refusal, out);
    return false;
}

// False if the tree changed meanwhile so that the plan must be made anew.
static bool try_to_carry_out(const host::backend &registry, const plan &first, const wish &wanted,
                             const change_options &options, bool last, change_result *out) {
    lock_set held(registry.locks.get(), first.locks, options);
    tell_step(options, "writes " + std::to_string(first.changes.size()) + " changes");
    plan made;
    {
        auto keys = registry.keys->now();
        if (!fits(keys.get(), wanted, out)) return true;
        made = make_plan(keys.get(), wanted, options);
    }
    if (!held.covers(made.locks)) {
        if (last) throw host_error(failure::changed, "the tree changed meanwhile, again and again");
        return false;
    }
    bool any_revision = last && options.if_revision == 0;
    try {
        if (!made.changes.empty())
            registry.keys->apply(made.changes, held.terms(any_revision ? 0 : made.revision));
    } catch (const host_error &error) {
        if (error.kind != failure::changed || options.if_revision != 0 || last) throw;
        return false;
    }
    tell(std::move(made), out);
    return true;
}

void change_registry(const std::string &url, const wish &wanted, const change_options &options,
                     change_result *out) {
    host::backend registry = open_if_there(url);
    for (int n = 1;; ++n) {
        plan made;
        {
            auto keys = registry.keys ? registry.keys->now() : nullptr;
            if (!fits(keys.get(), wanted, out)) return;
            made = make_plan(keys.get(), wanted, options);
        }
        if (options.dry_run) return tell(std::move(made), out);
        // Nothing is created before the wish has passed all checks.
        if (!registry.keys) registry = host::open_backend(url, host::open_mode::create);
        if (try_to_carry_out(registry, made, wanted, options, n == TRIES, out)) return;
    }
}

}  // namespace keyview::admin
