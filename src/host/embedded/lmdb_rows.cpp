// Access to rows within one transaction of LMDB.
#include "host/embedded/lmdb_rows.h"

#include <string>

#include "model/path.h"
#include "model/roots.h"

namespace keyview::host {

cursor_guard open_cursor(const environment &env, MDB_txn *txn) {
    MDB_cursor *cursor = nullptr;
    env.check(mdb_cursor_open(txn, environment::KEYS, &cursor), "mdb_cursor_open");
    return {cursor, &mdb_cursor_close};
}

void visit_below(const environment &env, MDB_cursor *cursor, std::string_view path, reach which,
                 const row_visitor &visit) {
    for (const key_range &range : key_ranges(path, which)) {
        for (row_scan rows(env, cursor, range); rows.more() && rows.in_range(); rows.next()) {
            if (row_is_below(rows.key(), rows.bytes(), path, which))
                visit(rows.key(), rows.bytes());
        }
    }
}

// What LMDB returned for the key of a path.
static row_state state_of(const environment &env, int rc, const MDB_val &data, const row_key &key,
                          std::string_view path, row *out) {
    if (rc == MDB_NOTFOUND) return row_state::absent;
    env.check(rc, "mdb_get");
    if (!read_row(key.view(), view_of(data), out)) return row_state::damaged;
    bool other = key_is_hashed(key.view()) && out->path != path;
    return other ? row_state::absent : row_state::sound;
}

row_state look_up(const environment &env, MDB_txn *txn, std::string_view path, row *out) {
    row_key key(path);
    MDB_val at = bytes_of(key.view());
    MDB_val data = {};
    int rc = mdb_get(txn, environment::KEYS, &at, &data);
    return state_of(env, rc, data, key, path, out);
}

row_state look_up(const environment &env, MDB_cursor *cursor, std::string_view path, row *out) {
    row_key key(path);
    MDB_val at = bytes_of(key.view());
    MDB_val data = {};
    int rc = mdb_cursor_get(cursor, &at, &data, MDB_SET_KEY);
    return state_of(env, rc, data, key, path, out);
}

bool may_be_stray(std::string_view key, std::string_view bytes) noexcept {
    row found;
    return !is_history(key) && !read_row(key, bytes, &found);
}

void visit_damaged_neighbours(const environment &env, MDB_cursor *cursor, std::string_view path,
                              const row_visitor &visit) {
    auto visit_damaged = [&](std::string_view key, std::string_view bytes) {
        if (may_be_stray(key, bytes)) visit(key, bytes);
    };
    row_key absent(path);
    key_range near;
    if (key_is_hashed(absent.view())) near = hashed_range(absent.view());
    MDB_val at = bytes_of(near.from.empty() ? absent.view() : std::string_view(near.from));
    MDB_val data = {};
    auto step = [&](MDB_cursor_op op) {
        int rc = mdb_cursor_get(cursor, &at, &data, op);
        if (rc != MDB_NOTFOUND) env.check(rc, "mdb_cursor_get");
        if (rc == MDB_SUCCESS) visit_damaged(view_of(at), view_of(data));
        return rc == MDB_SUCCESS;
    };
    bool behind = step(MDB_SET_RANGE);
    (void)step(behind ? MDB_PREV : MDB_LAST);  // there may be none before
    if (near.to.empty()) return;
    row_scan rows(env, cursor, near);
    if (rows.more()) rows.next();  // visited above
    for (; rows.more() && rows.in_range(); rows.next())
        visit_damaged(rows.key(), rows.bytes());
}

// Whether the list that an absent key would be in has all of its keys, and a list without damage. The
// key is then none of the damaged neighbours.
static bool absence_is_sure(const environment &env, MDB_txn *txn, std::string_view path) {
    std::string_view parent = parent_path(path);
    if (parent.empty()) return false;
    row above;
    row_state state = look_up(env, txn, parent, &above);
    if (state == row_state::absent) return absence_is_sure(env, txn, parent);
    bool sure = state == row_state::sound;
    uint32_t children = 0;
    cursor_guard cursor = open_cursor(env, txn);
    visit_below(env, cursor.get(), parent, reach::children,
                [&](std::string_view key, std::string_view bytes) {
                    row child;
                    sure = sure && read_row(key, bytes, &child);
                    ++children;
                });
    return sure && children == above.children;
}

bool find_row(const environment &env, MDB_txn *txn, std::string_view path, row *out) {
    row_state state = look_up(env, txn, path, out);
    if (state == row_state::damaged) throw damaged_row(path);
    if (state == row_state::sound) return true;
    cursor_guard cursor = open_cursor(env, txn);
    visit_damaged_neighbours(env, cursor.get(), path, [&](auto key, auto bytes) {
        if (!absence_is_sure(env, txn, path)) throw damaged_row(path_of_row(key, bytes));
    });
    return false;
}

host_error damaged_row(std::string_view path) {
    return host_error(
        failure::content,
        "the registry is damaged: the stored bytes of " + std::string(path) +
            " are not those that were written; set the key anew, remove it (\"keyviewctl rm "
            "KEY\"), or restore a backup (\"keyviewctl restore FILE --force\")");
}

}  // namespace keyview::host
