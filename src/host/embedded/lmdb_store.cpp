// The store of one machine: reading. lmdb_writer.cpp has the changes of the tree.
#include "host/embedded/lmdb_store.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "host/embedded/lmdb_history.h"
#include "host/embedded/lmdb_rows.h"
#include "host/embedded/lmdb_writer.h"
#include "host/embedded/pages/file_head.h"
#include "host/embedded/row_order.h"
#include "host/registry/lock_wait.h"
#include "host/registry/snapshot.h"
#include "host/support/error.h"
#include "model/path.h"

namespace keyview::host {

// Writers follow each other within milliseconds, so even a caller that does not wait for locks
// waits for them.
static constexpr uint32_t SHORTEST_WRITE_WAIT_MS = 10000;

static host_error damaged_list(std::string_view path) {
    return host_error(failure::content, "the registry is damaged: keys below " + std::string(path) +
                                            " are missing or not where they belong" + RESTORE);
}

// ---- Copies -------------------------------------------------------------------------------------

namespace {

// One moment: a read transaction. It keeps its store.
class lmdb_moment final : public moment {
  public:
    lmdb_moment(std::shared_ptr<lmdb_store> keys, environment *env, std::string_view part)
        : keys_(std::move(keys)),
          env_(env),
          part_(part_count(part)),
          before_(count()),
          reading_(env) {}

    revision current() override;
    bool read(std::string_view path, std::string *value) override;
    bool copy(std::string_view path, reach which, snapshot *out) override;
    bool scan(std::string_view path, reach which, const row_sink &keys,
              const damaged_key_sink &damaged) override;

  private:
    [[nodiscard]] bool copy_in_order(std::string_view path, reach which, snapshot *out);
    void copy_sorted(std::string_view path, reach which, snapshot *out);

    shared_words::change_count *part_count(std::string_view part) const {
        return part.empty() ? nullptr : keys_->locks()->words()->count_of(part);
    }
    uint64_t count() const { return part_ == nullptr ? 0 : part_->load(); }

    std::shared_ptr<lmdb_store> keys_;
    environment *env_;
    shared_words::change_count *part_;  // null if no revision is needed
    uint64_t before_;                   // its count before the transaction began
    environment::reading reading_;
};

}  // namespace

// The tree's revision is the number of the next transaction that writes, so it is never 0. The
// part's count is valid if no change of it was under way when the transaction began. A count of 0
// is not: nothing was counted since the lock file was made.
revision lmdb_moment::current() {
    bool quiet = before_ % 2 == 0 && count() == before_;
    return {mdb_txn_id(reading_.txn()) + 1, quiet ? before_ : 0};
}

bool lmdb_moment::read(std::string_view path, std::string *value) {
    if (path_fault(path) != nullptr) return false;
    row found;
    if (!find_row(*env_, reading_.txn(), path, &found)) return false;
    value->assign(found.value);
    return true;
}

bool lmdb_moment::copy(std::string_view path, reach which, snapshot *out) {
    if (path_fault(path) != nullptr) return false;
    row top;
    if (!find_row(*env_, reading_.txn(), path, &top)) return false;
    out->add_top(top.value, top.children);
    if (!copy_in_order(path, which, out)) {
        out->clear();
        out->add_top(top.value, top.children);
        copy_sorted(path, which, out);
    }
    if (!out->complete()) throw damaged_list(path);
    return true;
}

// Rows are usually in the order of a snapshot. False, with a part of it copied, if some
// keys are hashed, which are apart from their lists.
bool lmdb_moment::copy_in_order(std::string_view path, reach which, snapshot *out) {
    std::vector<key_range> ranges = key_ranges(path, which);
    if (ranges.size() != 1) return false;
    std::string_view list;  // the head that the keys of a list share, within the page of LMDB
    row found;
    for (row_scan rows(*env_, reading_.cursor(), ranges.front()); rows.more(); rows.next()) {
        std::string_view key = rows.key();
        size_t end = list.size();
        bool goes_on =
            key.size() > end && key[end] == '\0' && memcmp(key.data(), list.data(), end) == 0;
        if (!goes_on && !rows.in_range()) {
            if (out->complete()) break;
            // A row that is missing may stand behind the range, damaged in its key.
            if (!read_row(key, rows.bytes(), &found))
                throw damaged_row(path_of_row(key, rows.bytes()));
            throw damaged_list(path);
        }
        if (key_is_hashed(key)) return false;
        if (!read_row(key, rows.bytes(), &found)) throw damaged_row(path_of_row(key, rows.bytes()));
        if (!goes_on) {
            end = key.rfind('\0');
            list = key.substr(0, end);
            if (end == key.npos || !out->begin_list(list, '\x01')) throw damaged_list(path);
        }
        if (!out->add(key.substr(end + 1), found.value, found.children)) throw damaged_list(path);
    }
    return true;
}

void lmdb_moment::copy_sorted(std::string_view path, reach which, snapshot *out) {
    struct whole_row {
        std::string path;
        row found;
    };
    std::vector<whole_row> rows;
    auto add = [&](std::string_view key, std::string_view bytes) {
        whole_row added = {path_of_row(key, bytes), {}};
        if (!read_row(key, bytes, &added.found)) throw damaged_row(added.path);
        rows.push_back(std::move(added));
    };
    visit_below(*env_, reading_.cursor(), path, which, add);
    std::sort(rows.begin(), rows.end(),
              [](const whole_row &a, const whole_row &b) { return path_before(a.path, b.path); });
    std::string_view list;
    for (const whole_row &one : rows) {
        std::string_view parent = parent_path(one.path);
        if (parent != list) {
            list = parent;
            if (!out->begin_list(list, '.')) throw damaged_list(list);
        }
        std::string_view name = std::string_view(one.path).substr(parent.size() + 1);
        if (!out->add(name, one.found.value, one.found.children)) throw damaged_list(parent);
    }
}

bool lmdb_moment::scan(std::string_view path, reach which, const row_sink &keys,
                       const damaged_key_sink &damaged) {
    if (path_fault(path) != nullptr) return false;
    bool any = false;
    auto deliver = [&](std::string_view key, std::string_view bytes) {
        row found;
        std::string known = path_of_row(key, bytes);
        any = true;
        read_row(key, bytes, &found) ? keys(known, found.value) : damaged(known);
    };
    row top;
    row_state state = look_up(*env_, reading_.txn(), path, &top);
    any = state != row_state::absent;
    if (state == row_state::sound) keys(path, top.value);
    if (state == row_state::damaged) damaged(path);
    if (!any) visit_damaged_neighbours(*env_, reading_.cursor(), path, deliver);
    if (which != reach::key_alone) visit_below(*env_, reading_.cursor(), path, which, deliver);
    return any;
}

// ---- The store ----------------------------------------------------------------------------------

lmdb_store::lmdb_store(std::shared_ptr<const registry_directory> directory,
                       std::shared_ptr<file_locks> locks)
    : directory_(std::move(directory)), locks_(std::move(locks)) {
    (void)env();
}

environment *lmdb_store::env() {
    opened &here = opened_.get();
    environment *found = here.ready.load(std::memory_order_acquire);
    if (found != nullptr) return found;
    std::lock_guard guard(here.mutex);
    if (!here.env) here.env.emplace(*directory_);
    here.ready.store(&*here.env, std::memory_order_release);
    return &*here.env;
}

// A count that is odd while the write lock is free was left by a killed writer. LMDB may have the
// last commit of that writer on the disk and show it only after the next write transaction: so this
// runs one that changes nothing.
void lmdb_store::finish_killed_change(std::string_view part) {
    shared_words::change_count *count = locks_->words()->count_of(part);
    if (count == nullptr || count->load() % 2 == 0) return;
    std::shared_ptr<held_lock> writing;
    try {
        writing = locks_->acquire(file_locks::WRITERS, lock_mode::exclusive, 0);
    } catch (const host_error &error) {
        if (error.kind != failure::lock) throw;
        return;  // a change is under way
    }
    change_notice notice(locks_->words());
    notice.add(part);
    env()->write([](MDB_txn *) { return false; });
}

std::unique_ptr<moment> lmdb_store::now(std::string_view part, reach) {
    if (!part.empty()) finish_killed_change(part);
    return std::make_unique<lmdb_moment>(shared_from_this(), env(), part);
}

std::shared_ptr<held_lock> lmdb_store::write_lock() {
    uint32_t wait_ms = std::max(lock_wait_ms(), SHORTEST_WRITE_WAIT_MS);
    return locks_->acquire(file_locks::WRITERS, lock_mode::exclusive, wait_ms);
}

void lmdb_store::history(uint64_t since, const history_sink &sink) {
    environment *keys = env();
    environment::reading now(keys);
    read_history(*keys, now.cursor(), since, sink);
}

namespace {

// Changes of the tree with their entry in the history.
class recorded_writer : public lmdb_writer {
  public:
    recorded_writer(const environment &env, MDB_txn *txn, uint64_t limit)
        : lmdb_writer(env, txn, limit == 0 ? nullptr : &changes_),
          env_(env),
          txn_(txn),
          limit_(limit),
          changes_(limit / LARGEST_PART) {}

    // Whether anything changed.
    bool finish() {
        lmdb_writer::finish();
        if (changed() && limit_ > 0) add_history(env_, txn_, changes_, limit_);
        return changed();
    }

  private:
    static constexpr uint64_t LARGEST_PART = 4;  // of the history, for one change

    const environment &env_;
    MDB_txn *txn_;
    uint64_t limit_;
    change_recorder changes_;
};

}  // namespace

static void check_fence(std::string_view path, const held_lock *fence) {
    if (fence != nullptr && !fence->still_held()) throw lock_lost(path);
}

bool lmdb_store::set(std::string_view path, std::string_view value, const held_lock *fence,
                     std::string *replaced) {
    if (path_fault(path) != nullptr) return false;
    check_value(path, value);
    check_fence(path, fence);
    if (replaced == nullptr || *replaced == value) {  // it may change nothing
        std::string stored;
        std::unique_ptr<moment> present = now(path, reach::key_alone);
        if (!present->read(path, &stored)) return false;
        // Not valid while a change is under way: its writer would not know of ours.
        bool quiet = present->current().part != 0;
        if (quiet && stored == value) {
            if (replaced != nullptr) *replaced = value;
            return true;
        }
    }
    bool found = false;
    environment *keys = env();
    const uint64_t limit = history_limit();
    std::shared_ptr<held_lock> writing = write_lock();
    change_notice notice(locks_->words());
    notice.add(path);
    keys->write([&](MDB_txn *txn) {
        check_fence(path, fence);
        recorded_writer writer(*keys, txn, limit);
        found = writer.replace(path, value, replaced);
        return writer.finish();
    });
    return found;
}

static void check_terms(MDB_txn *writer, const apply_terms &terms) {
    for (const held_lock *fence : terms.fences)
        check_fence({}, fence);
    uint64_t revision = mdb_txn_id(writer);
    if (terms.revision != 0 && terms.revision != revision) {
        throw tree_changed(revision, terms.revision);
    }
}

change_counts lmdb_store::apply(const change_source &changes, const apply_terms &terms) {
    check_changes(changes);
    change_counts counts;
    environment *keys = env();
    const uint64_t limit = history_limit();
    std::shared_ptr<held_lock> writing = write_lock();
    change_notice notice(locks_->words());
    row_order order(changes.size);
    for (size_t n = 0; n < changes.size; ++n) {
        const change_view one = changes.at(n);
        notice.add(one.path);
        order.add(one);
    }
    order.sort(changes);
    auto carry_out = [&](MDB_txn *txn) {
        check_terms(txn, terms);
        recorded_writer writer(*keys, txn, limit);
        std::vector<bool> created(changes.size);
        for (size_t n = 0; n < changes.size; ++n) {
            const size_t change = order[n];
            const uint32_t parent = order.parent(change);
            const bool counted = parent != row_order::NONE && created[parent];
            created[change] =
                writer.carry_out(changes.at(change), {order.children(change), counted});
        }
        bool changed = writer.finish();
        counts = writer.counts();
        return changed;
    };
    keys->write(carry_out, order.room());
    return counts;
}

}  // namespace keyview::host
