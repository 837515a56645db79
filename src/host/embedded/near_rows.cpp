// The two rows beside a place.
#include "host/embedded/near_rows.h"

#include <memory>

#include "host/embedded/lmdb_writer.h"
#include "host/embedded/row.h"

namespace keyview::host {

// False if there is no row there.
static bool look_at(const environment &env, MDB_cursor *cursor, std::string_view place,
                    MDB_cursor_op which) {
    MDB_val key = bytes_of(place);
    MDB_val data = {};
    int rc = mdb_cursor_get(cursor, &key, &data, which);
    if (rc == MDB_NOTFOUND) return false;
    env.check(rc, "mdb_cursor_get");
    row found;
    if (!read_row(view_of(key), view_of(data), &found)) throw damaged_row(view_of(key));
    return true;
}

void require_sound_neighbours(const environment &env, MDB_txn *txn, std::string_view place) {
    MDB_cursor *cursor = nullptr;
    env.check(mdb_cursor_open(txn, environment::KEYS, &cursor), "mdb_cursor_open");
    std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)> guard(cursor, &mdb_cursor_close);
    bool behind = look_at(env, cursor, place, MDB_SET_RANGE);
    (void)look_at(env, cursor, place, behind ? MDB_PREV : MDB_LAST);  // there may be none before
}

}  // namespace keyview::host
