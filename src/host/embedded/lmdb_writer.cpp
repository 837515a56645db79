// Changes of the tree within one write transaction.
#include "host/embedded/lmdb_writer.h"

#include "model/path.h"

namespace keyview::host {

bool lmdb_writer::carry_out(const change_view &one, const in_batch &known) {
    leave(one.what == change::kind::remove ? std::string_view() : one.path);
    if (one.what == change::kind::remove) {
        remove(one.path);
        return false;
    }
    const bool created = put(one.path, one.value, damage_seen_ ? in_batch() : known);
    if (damage_seen_) finish();  // numbers of children are then those of the stored rows
    return created && !damage_seen_;
}

MDB_cursor *lmdb_writer::opened(cursor_guard *cursor) {
    if (!*cursor) *cursor = open_cursor(env_, txn_);
    return cursor->get();
}

// before is null for a key that did not exist, or whose bytes are damaged; after for one that goes.
void lmdb_writer::note(std::string_view path, const row *before, const std::string_view *after) {
    if (changes_ == nullptr) return;
    std::optional<std::string_view> old, fresh;
    if (before != nullptr) old = before->value;
    if (after != nullptr) fresh = *after;
    changes_->note(path, old, fresh);
}

// Writes the numbers of the open keys that are not above a key.
void lmdb_writer::leave(std::string_view path) {
    while (!open_.empty()) {
        const open_key &last = open_.back();
        if (last.path.size() < path.size() && path_within(path, last.path)) return;
        put_row(last.path, damage_seen_ ? count_children(last.path) : last.children, last.value,
                opened(&above_));
        open_.pop_back();
    }
}

// Opens a key, which is created if it is missing; false if its row is damaged. Those that are open are
// above it.
bool lmdb_writer::open(std::string_view path) {
    if (!open_.empty() && open_.back().path == path) return true;
    row found;
    row_state state = state_of(path, &found);
    if (state == row_state::damaged) return false;
    if (state == row_state::absent) {
        (void)put(path, {}, {});
        found = {};
    }
    open_.push_back({std::string(path), std::string(found.value), found.children});
    return true;
}

bool lmdb_writer::replace(std::string_view path, std::string_view value, std::string *replaced) {
    row found;
    if (!find_row(env_, txn_, path, &found)) return false;
    if (replaced != nullptr) *replaced = found.value;
    replace_row(path, found, value);
    return true;
}

bool lmdb_writer::put(std::string_view path, std::string_view value, const in_batch &known) {
    row found;
    bool alone = false;  // usually no damaged row is nearby
    row_state state = seek(path, &found, &alone);
    if (state == row_state::sound) {
        replace_row(path, found, value);
        return false;
    }
    ++(state == row_state::damaged ? counts_.replaced : counts_.created);
    const bool fresh = state == row_state::absent && (alone || !remove_strays(path));
    if (fresh) note(path, nullptr, &value);
    if (!fresh && changes_ != nullptr) changes_->note_unknown(path);
    create(path, value, known);
    return true;
}

void lmdb_writer::replace_row(std::string_view path, const row &found, std::string_view value) {
    if (found.value == value) return;
    note(path, &found, &value);
    put_row(path, found.children, value, opened(&cursor_));
    ++counts_.replaced;
}

// Writes the row of a key without a sound one, its missing parents first. Only damage leaves keys
// below a key that is missing.
void lmdb_writer::create(std::string_view path, std::string_view value, const in_batch &known) {
    std::string_view parent = parent_path(path);
    if (!known.counted && !parent.empty() && open(parent)) ++open_.back().children;
    put_row(path, damage_seen_ ? count_children(path) : known.children, value, opened(&cursor_));
}

// The path may be that of no key, as damage leaves it.
void lmdb_writer::remove(std::string_view path) {
    if (path.empty() || path.size() > MAX_PATH_LENGTH) return;
    row found;
    row_state state = state_of(path, &found);
    if (state == row_state::absent && !remove_strays(path)) return;
    if (state == row_state::sound && path_fault(path) != nullptr) return;
    std::vector<std::string> keys;
    if (state != row_state::absent) keys.emplace_back(row_key(path).view());
    if (state == row_state::sound) note(path, &found, nullptr);
    if (state == row_state::damaged && changes_ != nullptr) changes_->note_unknown(path);
    visit_below(env_, opened(&cursor_), path, reach::all_below,
                [&](std::string_view key, std::string_view bytes) {
                    keys.emplace_back(key);
                    note_removal(key, bytes);
                });
    for (const std::string &key : keys)
        delete_row(key);
    add_children(parent_path(path), -1);
}

void lmdb_writer::note_removal(std::string_view key, std::string_view bytes) {
    row found;
    const bool sound = read_row(key, bytes, &found);
    if (!sound) see_damage();
    if (changes_ == nullptr) return;
    const std::string path = path_of_row(key, bytes);
    sound ? note(path, &found, nullptr) : changes_->note_unknown(path);
}

// The engine moves rows by their sizes, which may be what is damaged.
void lmdb_writer::see_damage() {
    if (!damage_seen_) env_.require_all_pages();
    damage_seen_ = true;
}

row_state lmdb_writer::state_of(std::string_view path, row *found) {
    row_state state = look_up(env_, opened(&above_), path, found);
    if (state == row_state::damaged) see_damage();
    return state;
}

// The same with a cursor, which is then where the row is or would be. alone: none of the rows next to
// that of an absent key may be its own.
row_state lmdb_writer::seek(std::string_view path, row *found, bool *alone) {
    row_key key(path);
    if (key_is_hashed(key.view())) return state_of(path, found);
    MDB_val at = bytes_of(key.view());
    MDB_val data = {};
    auto step = [&](MDB_cursor_op op) {
        int rc = mdb_cursor_get(opened(&cursor_), &at, &data, op);
        if (rc != MDB_NOTFOUND) env_.check(rc, "mdb_cursor_get");
        return rc == MDB_SUCCESS;
    };
    bool behind = step(MDB_SET_RANGE);
    if (behind && view_of(at) == key.view()) {
        bool sound = read_row(key.view(), view_of(data), found);
        if (!sound) see_damage();
        return sound ? row_state::sound : row_state::damaged;
    }
    *alone = !behind || !may_be_stray(view_of(at), view_of(data));
    if (step(behind ? MDB_PREV : MDB_LAST))
        *alone = *alone && !may_be_stray(view_of(at), view_of(data));
    return row_state::absent;
}

// Removes the row of an absent key if it is nearby because its LMDB key is damaged.
bool lmdb_writer::remove_strays(std::string_view path) {
    row_key true_key(path);
    std::vector<std::string> strays;
    visit_damaged_neighbours(env_, opened(&cursor_), path,
                             [&](std::string_view key, std::string_view bytes) {
                                 row found;
                                 see_damage();
                                 if (read_row(true_key.view(), bytes, &found))
                                     strays.emplace_back(key);
                             });
    for (const std::string &key : strays)
        delete_row(key);
    return !strays.empty();
}

void lmdb_writer::add_children(std::string_view path, int32_t more) {
    row found;
    if (path.empty() || state_of(path, &found) != row_state::sound) return;
    uint32_t children = found.children + static_cast<uint32_t>(more);
    put_row(path, damage_seen_ ? count_children(path) : children, found.value, opened(&cursor_));
}

uint32_t lmdb_writer::count_children(std::string_view path) {
    uint32_t count = 0;
    visit_below(env_, opened(&cursor_), path, reach::children,
                [&](std::string_view, std::string_view) { ++count; });
    return count;
}

void lmdb_writer::put_row(std::string_view path, uint32_t children, std::string_view value,
                          MDB_cursor *cursor) {
    row_key key(path);
    MDB_val at = bytes_of(key.view());
    MDB_val data = bytes_of(write_row(key.view(), path, children, value, &buffer_));
    env_.check(mdb_cursor_put(cursor, &at, &data, 0), "mdb_put");
}

void lmdb_writer::delete_row(std::string_view key) {
    MDB_val at = bytes_of(key);
    env_.check(mdb_del(txn_, environment::KEYS, &at, nullptr), "mdb_del");
    ++counts_.removed;
}

}  // namespace keyview::host
