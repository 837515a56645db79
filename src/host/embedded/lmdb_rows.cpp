// Access to rows within one transaction of LMDB.
#include "host/embedded/lmdb_rows.h"

#include <string>

#include "model/path.h"

namespace keyview::host {

void visit_below(const environment &env, MDB_cursor *cursor, std::string_view path, reach which,
                 const row_visitor &visit) {
    for (const place_range &range : place_ranges(path, which)) {
        for (row_scan rows(env, cursor, range); rows.more() && rows.in_range(); rows.next()) {
            if (row_is_below(rows.place(), rows.bytes(), path, which))
                visit(rows.place(), rows.bytes());
        }
    }
}

row_state look_up(const environment &env, MDB_txn *txn, std::string_view path, row *out) {
    place_of place(path);
    MDB_val key = bytes_of(place.view());
    MDB_val data = {};
    int rc = mdb_get(txn, environment::KEYS, &key, &data);
    if (rc == MDB_NOTFOUND) return row_state::absent;
    env.check(rc, "mdb_get");
    if (!read_row(place.view(), view_of(data), out)) return row_state::damaged;
    bool other = place_is_cut(place.view()) && out->path != path;
    return other ? row_state::absent : row_state::sound;
}

void visit_damaged_neighbours(const environment &env, MDB_txn *txn, std::string_view path,
                              const row_visitor &visit) {
    cursor_guard cursor(env, txn);
    auto visit_damaged = [&](std::string_view place, std::string_view bytes) {
        row found;
        if (!read_row(place, bytes, &found)) visit(place, bytes);
    };
    place_of absent(path);
    place_range near = {std::string(absent.view()), {}};
    if (place_is_cut(absent.view())) near = cut_range(absent.view());
    MDB_val key = bytes_of(near.from);
    MDB_val data = {};
    auto step = [&](MDB_cursor_op op) {
        int rc = mdb_cursor_get(cursor.get(), &key, &data, op);
        if (rc != MDB_NOTFOUND) env.check(rc, "mdb_cursor_get");
        if (rc == MDB_SUCCESS) visit_damaged(view_of(key), view_of(data));
        return rc == MDB_SUCCESS;
    };
    bool behind = step(MDB_SET_RANGE);
    (void)step(behind ? MDB_PREV : MDB_LAST);  // there may be none before
    if (near.to.empty()) return;
    row_scan rows(env, cursor.get(), near);
    if (rows.more()) rows.next();  // visited above
    for (; rows.more() && rows.in_range(); rows.next())
        visit_damaged(rows.place(), rows.bytes());
}

bool find_row(const environment &env, MDB_txn *txn, std::string_view path, row *out) {
    row_state state = look_up(env, txn, path, out);
    if (state == row_state::damaged) throw damaged_row(path);
    if (state == row_state::sound) return true;
    visit_damaged_neighbours(env, txn, path, [](std::string_view place, std::string_view bytes) {
        throw damaged_row(path_of_row(place, bytes));
    });
    return false;
}

host_error damaged_row(std::string_view path) {
    return host_error(failure::content,
                      "the registry is damaged: the stored bytes of " + std::string(path) +
                          " are not those that were written; restore the registry from a saved "
                          "cluster document");
}

}  // namespace keyview::host
