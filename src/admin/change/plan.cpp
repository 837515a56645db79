// See plan.h. Plans are made from one moment of the tree. The plan that is carried out was made
// under its locks and is bound to its revision, so what is reported is what was written.
#include "admin/change/plan.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "admin/key_list.h"
#include "admin/key_map.h"
#include "model/locks.h"
#include "model/roots.h"

namespace keyview::admin {

// Above this many changes the tree is read as a whole.
static constexpr size_t FEW_CHANGES = 16;
// Above this many locks they are taken as one.
static constexpr size_t FEW_LOCKS = 32;
// Room for the parents that a plan creates; most trees have them.
static constexpr size_t FEW_PARENTS = 16;
// How often a plan is made anew because the tree changed under it. The last one is carried out
// without regard to changes elsewhere, so that a busy registry cannot keep it off.
static constexpr int TRIES = 8;

static void report_step(const change_options &options, const std::string &text) {
    if (options.step) options.step(text);
}

namespace {

struct plan {
    change_result reported;
    std::vector<std::string_view> pruned;  // keys that go with all that is below them
    std::vector<uint32_t> asked;  // the numbers of the requested changes that change something
    std::shared_ptr<const key_list> before;
};

}  // namespace

// ---- Planning -----------------------------------------------------------------------------------

static std::vector<part> parts_of(const change_request &request, const change_options &options) {
    const bool whole = options.prune || request.changes.size() > FEW_CHANGES;
    std::vector<part> parts;
    for (const auto *keys : {&options.present, &options.absent})
        for (const std::string &path : *keys)
            parts.push_back({path});
    if (whole) {
        parts.push_back({ROOT, reach::all_below});
        return parts;
    }
    for (const key_row &one : request.changes) {
        parts.push_back({std::string(one.path), one.value ? reach::key_alone : reach::all_below});
        for (std::string_view parent = parent_path(one.path); !parent.empty();
             parent = parent_path(parent)) {
            parts.push_back({std::string(parent)});
        }
    }
    for (const std::string &path : request.examines)
        parts.push_back({path});
    return parts;
}

namespace {

// Goes once through the keys of the tree and the requested changes, both in the order of the paths,
// and does to each key what the registry does: first all prunings, then the changes in their order.
class planning {
  public:
    planning(const ready_request &request, std::shared_ptr<const key_list> before,
             const change_options &options)
        : request_(*request),
          asked_(request->changes),
          before_(*before),
          options_(options),
          keys_(request, &request->changes) {
        made_.reported.changes = key_changes(before, keys_);
        made_.reported.changes.reserve(asked_.size() + FEW_PARENTS);
        made_.asked.reserve(asked_.size());
        made_.before = std::move(before);
    }

    plan make() && {
        while (key_ < before_.size() || change_ < asked_.size()) {
            bool key_is_first =
                change_ == asked_.size() ||
                (key_ < before_.size() && !first_(asked_.path(change_), before_.path(key_)));
            if (key_is_first && !at_change()) {
                pass_key();
            } else {
                pass_changes(key_is_first ? key_++ : key_list::NONE);
            }
        }
        made_.reported.changes.sort();  // only damage leaves keys below one that is missing
        add_locks();
        return std::move(made_);
    }

  private:
    using stored_value = std::optional<std::string_view>;

    static stored_value value_of(const key_list &keys, size_t number) {
        if (number == key_list::NONE) return std::nullopt;
        return keys[number].value;
    }

    static bool differ(const stored_value &a, const stored_value &b) {
        return a.has_value() != b.has_value() || a.value_or("") != b.value_or("");
    }

    bool at_change() const {
        return change_ < asked_.size() && before_.path(key_) == asked_.path(change_);
    }

    // The number of the next change that puts a key below a key, or NONE.
    size_t next_put_below(std::string_view path) const {
        for (size_t n = change_; n < asked_.size() && path_within(asked_.path(n), path); ++n)
            if (asked_[n].value) return n;
        return key_list::NONE;
    }

    bool is_pruned(std::string_view path) const {
        const std::string &top = options_.prune_within;
        return options_.prune && (request_.prunes_all || below_a_root(path)) &&
               (top.empty() || path_within(path, top)) && next_put_below(path) == key_list::NONE;
    }

    // A key that no change names.
    void pass_key() {
        const std::string_view path = before_.path(key_);
        size_t key = key_++;
        if (!removed_.empty() && path_within(path, removed_)) {
            note(path, key, next_put_below(path));
        } else if (is_pruned(path)) {
            if (made_.pruned.empty() || !path_within(path, made_.pruned.back()))
                made_.pruned.push_back(path);
            note(path, key, key_list::NONE);
        }
    }

    // The changes of one key, which the tree may have.
    void pass_changes(size_t key) {
        const std::string_view path = asked_.path(change_);
        const stored_value old = value_of(before_, key);
        size_t last = key_list::NONE;
        for (; change_ < asked_.size() && asked_.path(change_) == path; ++change_) {
            const stored_value value = asked_[change_].value;
            bool restores = value && path_within(path, removed_) && !removed_.empty();
            if (differ(value, old) || restores)
                made_.asked.push_back(static_cast<uint32_t>(change_));
            if (!value) removed_ = path;
            last = value ? change_ : key_list::NONE;
        }
        if (last == key_list::NONE) last = next_put_below(path);
        if (last != key_list::NONE) create_parents(path);
        note(path, key, last);
    }

    // The parents that a put of a key creates.
    void create_parents(std::string_view path) {
        bool known = path_within(put_, parent_path(path));
        for (size_t end = path.find('.'); !known && end != path.npos;
             end = path.find('.', end + 1)) {
            const std::string_view parent = path.substr(0, end);
            bool present = path_within(put_, parent) || before_.find(parent) != key_list::NONE;
            if (!present) made_.reported.changes.add(key_list::NONE, change_ - 1, end);
        }
        put_ = path;
    }

    // after is the number of the change that gives the key its value, or of one below it.
    void note(std::string_view path, size_t key, size_t after) {
        bool parent = after != key_list::NONE && asked_.path(after) != path;
        const stored_value fresh = parent ? std::string_view() : value_of(asked_, after);
        if (differ(value_of(before_, key), fresh))
            made_.reported.changes.add(key, after, path.size());
    }

    void add_locks() {
        lock_list &locks = made_.reported.locks;
        locks.keep(keys_);
        locks.keep(made_.before);
        size_t asked = request_.locks == further_locks::none ? asked_.size() : 0;
        const bool all = request_.locks == further_locks::of_all;
        auto add_asked = [&] {
            const std::string_view path = asked_.path(asked++);
            if (all || is_locked_record(locked_key_of(path))) locks.add(path);
        };
        for (const change_row &one : made_.reported.changes) {
            while (asked < asked_.size() && first_(asked_.path(asked), one.path))
                add_asked();
            if (below_a_root(one.path)) locks.add(one.path);
        }
        while (asked < asked_.size())
            add_asked();
        locks.sort();
    }

    const change_request &request_;
    const key_list &asked_, &before_;
    const change_options &options_;
    std::shared_ptr<const key_list> keys_;
    path_order first_;
    size_t key_ = 0, change_ = 0;
    std::string_view removed_;  // the latest key that a change removes
    std::string_view put_;      // the latest key that is put
    plan made_;
};

}  // namespace

static void check_keys(const key_list &before, const change_options &options) {
    for (const std::string &path : options.present)
        if (before.find(path) == key_list::NONE)
            throw error(KEYVIEW_FAILURE_NOT_FOUND, "there is no key " + path);
    for (const std::string &path : options.absent)
        if (before.find(path) != key_list::NONE)
            throw error(KEYVIEW_FAILURE_USAGE, "there is a key " + path + " already");
}

// The plan as of one moment. Without a registry the tree is empty, at revision 0.
static plan make_plan(const registry *keys, const ready_request &request,
                      const change_options &options) {
    auto before = std::make_shared<key_list>();
    uint64_t revision = 0;
    std::vector<std::string> damaged;
    if (keys != nullptr) revision = keys->read(parts_of(*request, options), before.get(), &damaged);
    for (const std::string &path : damaged)
        (void)before->add(path, DAMAGED_VALUE);
    before->sort_unique();
    check_keys(*before, options);
    if (request->check) request->check(*before, options.prune);
    if (options.if_revision && *options.if_revision != revision) {
        throw error(KEYVIEW_FAILURE_CHANGED, "the tree is at revision " + std::to_string(revision) +
                                                 ", not " + std::to_string(*options.if_revision) +
                                                 "; nothing was written");
    }
    plan made = planning(request, std::move(before), options).make();
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
static std::vector<held_lock> lock_all(const registry &keys, const lock_list &names,
                                       const change_options &options) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    auto deadline = steady_clock::now() + milliseconds(lock_wait_ms());
    std::vector<held_lock> held;
    if (names.size() > FEW_LOCKS) {
        report_step(options, "waits for " + std::to_string(names.size()) + " locks");
        lock_names all = {names.size(), [&](size_t number) { return names[number]; }};
        held.push_back(keys.lock_all(all, lock_wait_ms()));
        return held;
    }
    for (const std::string &name : names) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        report_step(options, "waits for the lock " + name);
        held.push_back(keys.lock(name, false, std::max<int64_t>(left.count(), 0)));
    }
    return held;
}

// Writes the prunings first, then the changes of the request.
static void write(const registry &keys, const key_list &asked, const plan &made,
                  const std::vector<held_lock> &locks, uint64_t revision) {
    auto change_at = [&](size_t number) {
        size_t pruned = made.pruned.size();
        if (number < pruned) return key_row{made.pruned[number], std::nullopt};
        return asked[made.asked[number - pruned]];
    };
    keys.apply(made.pruned.size() + made.asked.size(), change_at, locks, revision);
}

// Whether a plan is one for the tree as it is now. That for no registry is one for an empty tree.
static bool still_holds(const registry &keys, const change_request &request,
                        const change_options &options, plan *made) {
    if (made->reported.revision != 0) return keys.revision() == made->reported.revision;
    key_list found;
    std::vector<std::string> damaged;
    made->reported.revision = keys.read(parts_of(request, options), &found, &damaged);
    return found.size() == 0 && damaged.empty();
}

// False if the tree changed meanwhile so that the plan must be made anew.
static bool try_to_carry_out(const registry &keys, plan made, const ready_request &request,
                             const change_options &options, bool last, change_result *out) {
    const std::vector<held_lock> held = lock_all(keys, made.reported.locks, options);
    if (!still_holds(keys, *request, options, &made)) {
        const lock_list locks = std::move(made.reported.locks);
        made = {};  // a large one would be in memory beside the new one
        made = make_plan(&keys, request, options);
        if (!locks.includes(made.reported.locks)) {
            if (!last) return false;
            throw error(KEYVIEW_FAILURE_CHANGED, "the tree changed meanwhile, again and again");
        }
    }
    size_t changes = made.pruned.size() + made.asked.size();
    report_step(options, "writes " + std::to_string(changes) + " changes");
    if (changes > 0 && options.before_write) options.before_write(made.reported);
    bool any_revision = last && !options.if_revision;
    try {
        if (changes > 0) {
            write(keys, request->changes, made, held, any_revision ? 0 : made.reported.revision);
        }
    } catch (const error &failed) {
        if (failed.kind != KEYVIEW_FAILURE_CHANGED || options.if_revision || last) throw;
        return false;
    }
    *out = std::move(made.reported);
    return true;
}

ready_request ready(change_request wanted) {
    wanted.changes.sort();
    return std::make_shared<const change_request>(std::move(wanted));
}

change_result change_registry(const std::string &url, const ready_request &request,
                              const change_options &options) {
    std::optional<registry> keys = registry::open_if_present(url);
    // What must find a key creates no registry for it.
    if (!keys && !options.present.empty()) keys = registry::open(url);
    change_result done;
    for (int n = 1;; ++n) {
        plan made = make_plan(keys ? &*keys : nullptr, request, options);
        if (options.dry_run) return std::move(made.reported);
        // Nothing is created before the request has passed all checks.
        if (!keys) keys = registry::create(url);
        if (try_to_carry_out(*keys, std::move(made), request, options, n == TRIES, &done))
            return done;
    }
}

}  // namespace keyview::admin
