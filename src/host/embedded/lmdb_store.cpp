// The store of one machine: reading. lmdb_writer.cpp has the changes of the tree.
#include "host/embedded/lmdb_store.h"

#include <algorithm>

#include "host/embedded/lmdb_writer.h"
#include "host/registry/path.h"
#include "host/support/error.h"

namespace keyview::host {

// Writers follow each other within milliseconds; who does not want to wait for locks waits for
// them.
static constexpr uint32_t SHORTEST_WRITE_WAIT_MS = 10000;

static std::string_view view_of(const MDB_val &bytes) {
    return {static_cast<const char *>(bytes.mv_data), bytes.mv_size};
}

host_error damaged_row(std::string_view place) {
    std::string path;
    append_path(&path, place.substr(0, place_is_cut(place) ? place.find('\x02') : place.npos));
    return host_error(
        failure::content,
        "the registry is damaged: the stored bytes of " + path +
            (place_is_cut(place) ? "..." : "") +
            " are not those that were written; restore the registry from a saved cluster document");
}

bool find_row(const environment &env, MDB_txn *txn, std::string_view path, row *out) {
    std::string place = place_of(path);
    MDB_val key = bytes_of(place);
    MDB_val data = {};
    int rc = mdb_get(txn, environment::KEYS, &key, &data);
    if (rc == MDB_NOTFOUND) return false;
    env.check(rc, "mdb_get");
    if (!read_row(place, view_of(data), out)) throw damaged_row(place);
    return !place_is_cut(place) || out->path == path;
}

void scan_rows(const environment &env, MDB_cursor *cursor, std::string_view path, reach which,
               const std::function<void(std::string_view, std::string_view)> &visit) {
    for (const place_range &range : place_ranges(path, which)) {
        MDB_val key = bytes_of(range.from);
        MDB_val data = {};
        int rc = mdb_cursor_get(cursor, &key, &data, MDB_SET_RANGE);
        while (rc == MDB_SUCCESS && view_of(key) < range.to) {
            visit(view_of(key), view_of(data));
            rc = mdb_cursor_get(cursor, &key, &data, MDB_NEXT);
        }
        if (rc != MDB_NOTFOUND) env.check(rc, "mdb_cursor_get");
    }
}

bool below(std::string_view path, std::string_view top, reach which) {
    if (path.size() <= top.size() || !path_within(path, top)) return false;
    return which == reach::all_below || path.find('.', top.size() + 1) == path.npos;
}

// ---- Rows that are copied out of a transaction --------------------------------------------------

namespace {

// Keys with their values, free of the transaction: a sink may then take its time.
class row_copies {
  public:
    void add(std::string_view path, std::string_view place, std::string_view value) {
        entry added = {bytes_.size(), 0, 0, value.size()};
        if (path.empty()) {
            append_path(&bytes_, place);
        } else {
            bytes_ += path;
        }
        added.path_size = bytes_.size() - added.path_at;
        added.value_at = bytes_.size();
        bytes_ += value;
        entries_.push_back(added);
    }

    void sort() {
        std::sort(entries_.begin(), entries_.end(),
                  [this](const entry &a, const entry &b) { return path_before(path(a), path(b)); });
    }

    size_t count() const { return entries_.size(); }

    void deliver(const store::row_sink &sink) const {
        std::string_view bytes = bytes_;
        for (const entry &e : entries_)
            sink(path(e), bytes.substr(e.value_at, e.value_size));
    }

  private:
    struct entry {
        size_t path_at;
        size_t path_size;
        size_t value_at;
        size_t value_size;
    };

    std::string_view path(const entry &e) const {
        return std::string_view(bytes_).substr(e.path_at, e.path_size);
    }

    std::string bytes_;
    std::vector<entry> entries_;
};

}  // namespace

// In the order of whole places.
static void copy_rows(const environment &env, MDB_cursor *cursor, std::string_view top, reach which,
                      row_copies *out) {
    bool any_cut = false;
    scan_rows(env, cursor, top, which, [&](std::string_view place, std::string_view bytes) {
        row found;
        if (!read_row(place, bytes, &found)) throw damaged_row(place);
        bool cut = place_is_cut(place);
        if (cut && !below(found.path, top, which)) return;
        any_cut = any_cut || cut;
        out->add(found.path, place, found.value);
    });
    if (any_cut) out->sort();
}

// ---- The store ----------------------------------------------------------------------------------

lmdb_store::lmdb_store(std::shared_ptr<const registry_directory> directory,
                       std::shared_ptr<file_locks> locks)
    : directory_(std::move(directory)), locks_(std::move(locks)) {
    (void)env();
}

environment *lmdb_store::env() {
    opened &here = opened_.get();
    environment *found = here.env.load(std::memory_order_acquire);
    if (found != nullptr) return found;
    std::lock_guard guard(here.mutex);
    if (!here.use) here.use.emplace(*directory_);
    here.env.store(here.use->get(), std::memory_order_release);
    return here.use->get();
}

bool lmdb_store::read(std::string_view path, std::string *value) {
    if (path_fault(path) != nullptr) return false;
    environment *keys = env();
    environment::reading now(keys);
    row found;
    if (!find_row(*keys, now.txn(), path, &found)) return false;
    value->assign(found.value);
    return true;
}

bool lmdb_store::read_children(std::string_view path, const std::function<void(uint32_t)> &count,
                               const row_sink &sink) {
    if (path_fault(path) != nullptr) return false;
    row_copies children;
    {
        environment *keys = env();
        environment::reading now(keys);
        row parent;
        if (!find_row(*keys, now.txn(), path, &parent)) return false;
        uint32_t expected = parent.children;
        copy_rows(*keys, now.cursor(), path, reach::children, &children);
        if (children.count() != expected) throw damaged_row(place_of(path));
    }
    count(static_cast<uint32_t>(children.count()));
    children.deliver(sink);
    return true;
}

bool lmdb_store::read_subtree(std::string_view path, const row_sink &sink) {
    if (path_fault(path) != nullptr) return false;
    row_copies rows;
    {
        environment *keys = env();
        environment::reading now(keys);
        row top;
        if (!find_row(*keys, now.txn(), path, &top)) return false;
        rows.add(path, {}, top.value);
        copy_rows(*keys, now.cursor(), path, reach::all_below, &rows);
    }
    rows.deliver(sink);
    return true;
}

std::unique_ptr<held_lock> lmdb_store::right_to_write() {
    uint32_t wait_ms = std::max(lock_wait_ms(), SHORTEST_WRITE_WAIT_MS);
    return locks_->acquire(file_locks::WRITERS, lock_mode::exclusive, wait_ms);
}

static void check_value(std::string_view path, std::string_view value) {
    if (value.size() <= MAX_VALUE_SIZE) return;
    throw host_error(failure::usage, "the value of " + std::string(path) + " has " +
                                         std::to_string(value.size()) +
                                         " bytes: 1048576 is the most a key can hold");
}

bool lmdb_store::set(std::string_view path, std::string_view value, const held_lock *fence) {
    if (path_fault(path) != nullptr) return false;
    check_value(path, value);
    bool found = false;
    environment *keys = env();
    std::unique_ptr<held_lock> right = right_to_write();
    keys->write([&](MDB_txn *txn) {
        if (fence != nullptr && !fence->still_held()) {
            throw host_error(failure::lock,
                             "cannot set " + std::string(path) + ": the cluster lock was lost");
        }
        lmdb_writer writer(*keys, txn);
        found = writer.replace(path, value);
        return writer.changed();
    });
    return found;
}

change_counts lmdb_store::apply(const std::vector<change> &changes) {
    for (const change &one : changes) {
        const char *fault = path_fault(one.path);
        if (fault != nullptr && one.what == change::kind::put) {
            throw host_error(failure::usage, "no key can be '" + one.path + "': " + fault);
        }
        check_value(one.path, one.value);
    }
    change_counts counts;
    environment *keys = env();
    std::unique_ptr<held_lock> right = right_to_write();
    keys->write([&](MDB_txn *txn) {
        lmdb_writer writer(*keys, txn);
        for (const change &one : changes)
            writer.carry_out(one);
        counts = writer.counts();
        return writer.changed();
    });
    return counts;
}

}  // namespace keyview::host
