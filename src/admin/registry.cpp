// See registry.h.
#include "admin/registry.h"

#include <exception>
#include <utility>

namespace keyview::admin {

void check(int32_t rc) {
    if (rc != 0) throw error(rc, keyview_host_last_error());
}

static keyview_bytes bytes_of(std::string_view text) {
    return {text.data(), text.size()};
}

static std::optional<std::string> optional_text(const keyview_bytes *bytes) {
    if (bytes == nullptr) return std::nullopt;
    return text_of(*bytes);
}

// ---- Callbacks ----------------------------------------------------------------------------------

void callback_guard::finish(int32_t rc) const {
    check(rc);
    if (thrown_ != nullptr) std::rethrow_exception(thrown_);
}

namespace {

struct rows_read : callback_guard {
    const std::function<void(std::string_view, std::string_view)> *row;
    std::vector<std::string> *damaged;
};

struct changes_written : callback_guard {
    const std::function<key_row(size_t)> *change_at;
};

struct changes_read : callback_guard {
    change_batch batch;
};

// A change is delivered once its keys are read.
struct history_read : callback_guard {
    const std::function<bool(past_change &&)> *sink;
    std::optional<past_change> latest;
    bool goes_on = true;

    void deliver() {
        run([&] {
            if (latest && goes_on) goes_on = (*sink)(std::move(*latest));
            latest.reset();
        });
    }
};

struct names_read : callback_guard {
    const lock_names *names;
    std::string latest;
};

struct users_read : callback_guard {
    std::vector<lock_user> users;
};

}  // namespace

static std::string_view view_of(keyview_bytes bytes) {
    return bytes.size == 0 ? std::string_view() : std::string_view(bytes.data, bytes.size);
}

static void add_row(void *arg, keyview_bytes path, const keyview_bytes *value) {
    auto *rows = static_cast<rows_read *>(arg);
    keys_read.fetch_add(1, std::memory_order_relaxed);
    rows->run([&] {
        if (value == nullptr) rows->damaged->push_back(text_of(path));
        if (value != nullptr) (*rows->row)(view_of(path), view_of(*value));
    });
}

static void fill_change(void *arg, size_t number, keyview_change *out) {
    auto *changes = static_cast<changes_written *>(arg);
    changes->run([&] {
        const key_row one = (*changes->change_at)(number);
        *out = {bytes_of(one.path), bytes_of(one.value.value_or("")), one.value ? 0 : 1};
    });
}

static void add_change(void *arg, uint64_t revision, keyview_bytes path,
                       const keyview_bytes *before, const keyview_bytes *after) {
    auto *read = static_cast<changes_read *>(arg);
    read->run([&] {
        read->batch.changes.push_back(
            {revision, {text_of(path), optional_text(before), optional_text(after)}});
    });
}

static int32_t begin_entry(void *arg, const keyview_history_entry *entry) {
    auto *read = static_cast<history_read *>(arg);
    read->deliver();
    read->run([&] {
        if (!read->goes_on) return;
        read->latest = past_change{entry->revision,
                                   entry->time_us,
                                   text_of(entry->user),
                                   text_of(entry->program),
                                   text_of(entry->host),
                                   entry->process,
                                   {},
                                   entry->left_out};
    });
    return read->latest ? 1 : 0;
}

static void add_past_key(void *arg, uint64_t, keyview_bytes path, const keyview_bytes *before,
                         const keyview_bytes *after) {
    auto *read = static_cast<history_read *>(arg);
    read->run([&] {
        read->latest->changes.push_back(
            {text_of(path), optional_text(before), optional_text(after)});
    });
}

static keyview_bytes name_at(void *arg, size_t number) {
    auto *read = static_cast<names_read *>(arg);
    read->run([&] { read->latest = read->names->at(number); });
    return bytes_of(read->latest);
}

static void add_user(void *arg, keyview_bytes name, int32_t shared, int32_t waits,
                     keyview_bytes holder) {
    auto *read = static_cast<users_read *>(arg);
    read->run([&] {
        read->users.push_back({text_of(name), shared != 0, waits != 0, text_of(holder)});
    });
}

// ---- The registry -------------------------------------------------------------------------------

static keyview_registry *opened(const std::string &url, bool create) {
    keyview_registry *handle = nullptr;
    check(keyview_registry_open(url.empty() ? nullptr : url.c_str(), create ? 1 : 0, &handle));
    return handle;
}

registry registry::open(const std::string &url) {
    try {
        return registry(opened(url, false));
    } catch (error &failed) {
        if (failed.kind == KEYVIEW_FAILURE_NOT_FOUND) failed.kind = KEYVIEW_FAILURE_REGISTRY;
        throw;
    }
}

std::optional<registry> registry::open_if_present(const std::string &url) {
    try {
        return registry(opened(url, false));
    } catch (const error &failed) {
        if (failed.kind != KEYVIEW_FAILURE_NOT_FOUND) throw;
        return std::nullopt;
    }
}

registry registry::create(const std::string &url) {
    return registry(opened(url, true));
}

uint64_t registry::read(const std::vector<part> &parts, key_map *out,
                        std::vector<std::string> *damaged) const {
    // Rows come in a few sorted runs: each belongs next to the one before, or a few keys further.
    auto add = [out, next = out->end()](std::string_view path, std::string_view value) mutable {
        constexpr int NEAR = 4;
        for (int i = 0; i < NEAR && next != out->end() && path_order()(next->first, path); ++i)
            ++next;
        next = std::next(out->insert_or_assign(next, std::string(path), value));
    };
    return read(parts, add, damaged);
}

uint64_t registry::read(const std::vector<part> &parts, key_list *out,
                        std::vector<std::string> *damaged) const {
    auto add = [out](std::string_view path, std::string_view value) {
        (void)out->add(path, value);
    };
    return read(parts, add, damaged);
}

uint64_t registry::read(const std::vector<part> &parts, const row_sink &row,
                        std::vector<std::string> *damaged) const {
    std::vector<keyview_part> wanted;
    wanted.reserve(parts.size());
    for (const part &one : parts)
        wanted.push_back({bytes_of(one.path), static_cast<int32_t>(one.depth)});
    rows_read rows{{}, &row, damaged};
    uint64_t revision = 0;
    rows.finish(keyview_registry_read(handle_.get(), wanted.data(), wanted.size(),
                                      damaged != nullptr ? 1 : 0, add_row, &rows, &revision));
    return revision;
}

std::optional<change_batch> registry::changes_since(std::string_view path, uint64_t since,
                                                    uint32_t wait_ms) const {
    changes_read read;
    read.batch.up_to = since;
    int32_t keeps_history = 0;
    read.finish(keyview_registry_follow(handle_.get(), bytes_of(path), &read.batch.up_to, wait_ms,
                                        add_change, &read, &keeps_history));
    if (keeps_history == 0) return std::nullopt;
    return std::move(read.batch);
}

void registry::history(uint64_t since,
                       const std::function<bool(past_change &&change)> &sink) const {
    history_read read{{}, &sink, {}};
    int32_t rc = keyview_registry_history(handle_.get(), since, begin_entry, add_past_key, &read);
    read.deliver();
    read.finish(rc);
}

void registry::apply(size_t count, const std::function<key_row(size_t number)> &change_at,
                     const std::vector<held_lock> &locks, uint64_t revision) const {
    changes_written changes{{}, &change_at};
    std::vector<keyview_lock *> fences;
    fences.reserve(locks.size());
    for (const held_lock &lock : locks)
        fences.push_back(lock.get());
    changes.finish(keyview_registry_apply_from(handle_.get(), fill_change, &changes, count,
                                               fences.data(), fences.size(), revision));
}

// ---- Locks --------------------------------------------------------------------------------------

held_lock::held_lock(keyview_registry *registry, std::string_view name, bool shared,
                     int64_t wait_ms) {
    keyview_lock *lock = nullptr;
    check(keyview_lock_acquire(registry, bytes_of(name), shared ? 1 : 0, wait_ms, &lock));
    lock_.reset(lock);
}

held_lock::held_lock(keyview_registry *registry, const lock_names &names, int64_t wait_ms) {
    names_read read{{}, &names, {}};
    keyview_lock *lock = nullptr;
    int32_t rc = keyview_lock_acquire_all(registry, name_at, &read, names.count, wait_ms, &lock);
    lock_.reset(lock);
    read.finish(rc);
}

std::vector<lock_user> registry::lock_users(const std::vector<std::string> &names) const {
    std::vector<keyview_bytes> known;
    known.reserve(names.size());
    for (const std::string &name : names)
        known.push_back(bytes_of(name));
    users_read read;
    read.finish(keyview_lock_list(handle_.get(), known.data(), known.size(), add_user, &read));
    return std::move(read.users);
}

// ---- Sets of the library ------------------------------------------------------------------------

set_recorder::set_recorder() {
    keyview_registry_observe_sets(add, this);
}

void set_recorder::add(void *arg, uint64_t, keyview_bytes path, const keyview_bytes *before,
                       const keyview_bytes *after) {
    auto *recorder = static_cast<set_recorder *>(arg);
    recorder->run([&] {
        key_change one = {text_of(path), text_of(*before), text_of(*after)};
        if (one.before != one.after) recorder->changes_.push_back(std::move(one));
    });
}

std::vector<key_change> set_recorder::changes() const {
    finish(0);
    return changes_;
}

// ---- Damage that the library meets --------------------------------------------------------------

damage_recorder::damage_recorder() {
    keyview_registry_observe_damage(add, this);
}

void damage_recorder::add(void *arg, keyview_bytes text) {
    auto *recorder = static_cast<damage_recorder *>(arg);
    recorder->run([&] {
        if (recorder->first_.empty()) recorder->first_ = text_of(text);
    });
}

std::string damage_recorder::first() const {
    finish(0);
    return first_;
}

}  // namespace keyview::admin
