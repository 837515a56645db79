// The two rows beside a place.
#include "host/embedded/near_rows.h"

#include <memory>

#include "host/embedded/lmdb_writer.h"
#include "host/embedded/row.h"

namespace keyview::host {

void require_sound_neighbours(const environment &env, MDB_txn *txn, std::string_view place) {
    MDB_cursor *cursor = nullptr;
    env.check(mdb_cursor_open(txn, environment::KEYS, &cursor), "mdb_cursor_open");
    std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)> guard(cursor, &mdb_cursor_close);
    MDB_cursor_op before = MDB_PREV;
    for (MDB_cursor_op next : {MDB_SET_RANGE, MDB_PREV}) {
        MDB_val key = bytes_of(place);
        MDB_val data = {};
        int rc = mdb_cursor_get(cursor, &key, &data, next == MDB_PREV ? before : next);
        if (rc == MDB_NOTFOUND) {
            before = MDB_LAST;  // nothing comes behind the place
            continue;
        }
        env.check(rc, "mdb_cursor_get");
        std::string_view beside(static_cast<char *>(key.mv_data), key.mv_size);
        row found;
        if (!read_row(beside, {static_cast<char *>(data.mv_data), data.mv_size}, &found)) {
            throw damaged_row(beside);
        }
    }
}

}  // namespace keyview::host
