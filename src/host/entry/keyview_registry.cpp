// The functions of keyview_registry.h: arguments become the kit's own types, failures become codes.
#include "host/if/keyview_registry.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "host/entry/backends.h"
#include "host/registry/client.h"
#include "host/registry/history.h"
#include "host/registry/lock_wait.h"
#include "host/registry/reported_wait.h"
#include "host/support/last_error.h"

using namespace keyview;
using namespace keyview::host;

struct keyview_registry {
    backend opened;
};

struct keyview_lock {
    backend registry;  // outlives the locks
    std::vector<std::shared_ptr<held_lock>> held;
};

static std::string_view view_of(keyview_bytes bytes) {
    return bytes.size == 0 ? std::string_view() : std::string_view(bytes.data, bytes.size);
}

static keyview_bytes c_bytes(std::string_view text) {
    return {text.data(), text.size()};
}

static std::vector<std::string> strings_of(const keyview_bytes *names, size_t count) {
    std::vector<std::string> out;
    out.reserve(count);
    for (size_t n = 0; n < count; ++n)
        out.emplace_back(view_of(names[n]));
    return out;
}

static std::vector<std::string> sorted_names(keyview_name_source source, void *arg, size_t count) {
    std::vector<std::string> out;
    out.reserve(count);
    for (size_t n = 0; n < count; ++n)
        out.emplace_back(view_of(source(arg, n)));
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
    return out;
}

static wait_limit limit_of(std::string_view name, int64_t wait_ms) {
    if (wait_ms < 0 || is_held_above(name)) return lock_wait_for(name);
    return static_cast<uint32_t>(std::min<int64_t>(wait_ms, UINT32_MAX));
}

// Runs the body of a function; what it throws becomes its code.
template <typename work>
static int32_t coded(work &&body) {
    int32_t rc = at_border([&]() -> int32_t {
        body();
        return 0;
    });
    return rc == 0 ? 0 : keyview_host_last_error_kind();
}

static reach depth_of(int32_t depth) {
    if (depth >= KEYVIEW_DEPTH_KEY && depth <= KEYVIEW_DEPTH_ALL) return static_cast<reach>(depth);
    throw host_error(failure::usage, std::to_string(depth) + " is no depth");
}

static void read_part(moment *now, std::string_view path, reach depth, bool salvage,
                      keyview_row_callback row, void *arg) {
    auto deliver_row = [&](std::string_view key, std::string_view value) {
        keyview_bytes bytes = c_bytes(value);
        row(arg, c_bytes(key), &bytes);
    };
    if (salvage) {
        (void)now->scan(path, depth, deliver_row,
                        [&](std::string_view key) { row(arg, c_bytes(key), nullptr); });
    } else {
        (void)now->moment::scan(path, depth, deliver_row, {});  // of a copy, which is in order
    }
}

static void deliver(const tree_change &one, keyview_change_callback change, void *arg) {
    keyview_bytes before = one.before ? c_bytes(*one.before) : keyview_bytes{};
    keyview_bytes after = one.after ? c_bytes(*one.after) : keyview_bytes{};
    change(arg, one.revision, c_bytes(one.path), one.before ? &before : nullptr,
           one.after ? &after : nullptr);
}

extern "C" {

int32_t keyview_registry_open(const char *url, int32_t create, keyview_registry **registry) {
    return coded([&] {
        backend opened = open_backend(url == nullptr ? registry_url() : url,
                                      create != 0 ? open_mode::create : open_mode::existing);
        *registry = new keyview_registry{std::move(opened)};
    });
}

void keyview_registry_close(keyview_registry *registry) {
    delete registry;
}

uint64_t keyview_registry_round_trips(const keyview_registry *registry) {
    return registry->opened.keys->round_trips();
}

int32_t keyview_registry_read(keyview_registry *registry, const keyview_part *parts, size_t count,
                              int32_t salvage, keyview_row_callback row, void *arg,
                              uint64_t *revision) {
    return coded([&] {
        std::unique_ptr<moment> now = registry->opened.keys->now();
        for (size_t n = 0; n < count; ++n) {
            read_part(now.get(), view_of(parts[n].path), depth_of(parts[n].depth), salvage != 0,
                      row, arg);
        }
        if (revision != nullptr) *revision = now->current().tree;
    });
}

int32_t keyview_registry_follow(keyview_registry *registry, keyview_bytes path, uint64_t *since,
                                uint32_t wait_ms, keyview_change_callback change, void *arg,
                                int32_t *keeps_history) {
    return coded([&] {
        auto batch = registry->opened.keys->changes_since(view_of(path), *since,
                                                          std::chrono::milliseconds(wait_ms));
        *keeps_history = batch ? 1 : 0;
        if (!batch) return;
        for (const tree_change &one : batch->changes)
            deliver(one, change, arg);
        *since = batch->up_to;
    });
}

int32_t keyview_registry_history(keyview_registry *registry, uint64_t since,
                                 keyview_history_callback entry, keyview_change_callback change,
                                 void *arg) {
    return coded([&] {
        registry->opened.keys->history(since, [&](const history_entry &one) {
            const keyview_history_entry head = {
                one.revision,      one.time_us, c_bytes(one.user), c_bytes(one.program),
                c_bytes(one.host), one.process, one.left_out};
            if (entry(arg, &head) == 0) return false;
            for (const tree_change &key : one.changes)
                deliver(key, change, arg);
            return true;
        });
    });
}

void keyview_registry_observe_sets(keyview_change_callback set, void *arg) {
    observe_sets(set, arg);
}

void keyview_registry_observe_damage(keyview_failure_callback damage, void *arg) {
    observe_damage(damage, arg);
}

int32_t keyview_registry_apply(keyview_registry *registry, const keyview_change *changes,
                               size_t count, keyview_lock *const *locks, size_t lock_count,
                               uint64_t revision) {
    auto source = [](void *all, size_t number, keyview_change *one) {
        *one = (*static_cast<const keyview_change **>(all))[number];
    };
    return keyview_registry_apply_from(registry, source, &changes, count, locks, lock_count,
                                       revision);
}

int32_t keyview_registry_apply_from(keyview_registry *registry, keyview_change_source source,
                                    void *arg, size_t count, keyview_lock *const *locks,
                                    size_t lock_count, uint64_t revision) {
    return coded([&] {
        auto change_at = [=](size_t number) -> change_view {
            keyview_change one = {};
            source(arg, number, &one);
            return {one.remove != 0 ? change::kind::remove : change::kind::put, view_of(one.path),
                    view_of(one.value)};
        };
        apply_terms terms;
        terms.revision = revision;
        for (size_t n = 0; n < lock_count; ++n)
            for (const std::shared_ptr<held_lock> &one : locks[n]->held)
                terms.fences.push_back(one.get());
        registry->opened.keys->apply({count, change_at}, terms);
    });
}

int32_t keyview_registry_recover(keyview_registry *registry, int32_t undo) {
    return coded([&] {
        if (registry->opened.keys->finish_apply(undo != 0 ? finish::undo : finish::resume)) return;
        throw host_error(failure::not_found, "no change set stopped half-way");
    });
}

int32_t keyview_lock_acquire(keyview_registry *registry, keyview_bytes name, int32_t shared,
                             int64_t wait_ms, keyview_lock **lock) {
    return coded([&] {
        if (name.size == 0) throw host_error(failure::usage, "the name of the lock is empty");
        auto held = registry->opened.locks->acquire(
            view_of(name), shared != 0 ? lock_mode::shared : lock_mode::exclusive,
            limit_of(view_of(name), wait_ms));
        *lock = new keyview_lock{registry->opened, {std::move(held)}};
    });
}

int32_t keyview_lock_acquire_all(keyview_registry *registry, keyview_name_source source, void *arg,
                                 size_t count, int64_t wait_ms, keyview_lock **lock) {
    return coded([&] {
        lock_service *locks = registry->opened.locks.get();
        wait_limit limit = limit_of("", wait_ms);
        std::vector<std::shared_ptr<held_lock>> held;
        if (any_held_above()) {
            held = locks->acquire_each(sorted_names(source, arg, count), limit);
        } else {
            held.push_back(locks->acquire_all(limit));
        }
        *lock = new keyview_lock{registry->opened, std::move(held)};
    });
}

// The members go in the reverse of their order: first the locks, then what they belong to.
void keyview_lock_release(keyview_lock *lock) {
    delete lock;
}

int32_t keyview_lock_held(const keyview_lock *lock) {
    return std::all_of(lock->held.begin(), lock->held.end(),
                       [](const auto &one) { return one->still_held(); })
               ? 1
               : 0;
}

void keyview_lock_observe_waits(keyview_wait_callback wait, void *arg) {
    observe_waits(wait, arg);
}

int32_t keyview_lock_list(keyview_registry *registry, const keyview_bytes *names, size_t count,
                          keyview_lock_callback use, void *arg) {
    return coded([&] {
        for (const lock_use &one : registry->opened.locks->users(strings_of(names, count))) {
            use(arg, c_bytes(one.name), one.mode == lock_mode::shared ? 1 : 0, one.waits ? 1 : 0,
                c_bytes(one.holder));
        }
    });
}

int32_t keyview_registry_check(keyview_damage_callback damage, keyview_row_callback row, void *arg,
                               uint64_t *keys, uint64_t *pages) {
    return coded([&] {
        check_counts counts = check_backend(
            registry_url(),
            [&](const std::string &location, const std::string &reason) {
                damage(arg, c_bytes(location), c_bytes(reason));
            },
            [&](std::string_view path, std::string_view value) {
                keyview_bytes bytes = c_bytes(value);
                row(arg, c_bytes(path), &bytes);
            });
        *keys = counts.keys;
        *pages = counts.pages;
    });
}

int32_t keyview_registry_diagnose(keyview_diagnosis_callback found, void *arg) {
    return coded([&] {
        diagnose_backend(registry_url(), [&](const diagnosis &one) {
            found(arg, c_bytes(one.subject), static_cast<int32_t>(one.state), c_bytes(one.text));
        });
    });
}

}  // extern "C"

static_assert(static_cast<int32_t>(health::bad) == KEYVIEW_HEALTH_BAD &&
                  static_cast<int32_t>(reach::all_below) == KEYVIEW_DEPTH_ALL,
              "the numbers are those of the header");
