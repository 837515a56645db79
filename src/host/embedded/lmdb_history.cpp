// Rows of the history. The number of an entry is the count of bytes that all entries before it took, so
// that the first and the last row tell how many bytes there are.
#include "host/embedded/lmdb_history.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>

#include "host/embedded/lmdb_rows.h"
#include "host/embedded/row.h"
#include "model/roots.h"

namespace keyview::host {

namespace {

// A walk over the rows of the history.
class history_rows {
  public:
    history_rows(const environment &env, MDB_cursor *cursor) : env_(env), cursor_(cursor) {}

    bool last() {
        const std::string behind = std::string(HISTORY_HEAD) + "g";  // behind any digit
        key_ = bytes_of(behind);
        (void)step(step(MDB_SET_RANGE) ? MDB_PREV : MDB_LAST);
        return within();
    }
    bool first() {
        key_ = bytes_of(HISTORY_HEAD);
        (void)step(MDB_SET_RANGE);
        return within();
    }
    bool previous() {
        (void)step(MDB_PREV);
        return within();
    }

    std::string path() const { return std::string(view_of(key_)); }

    // 0 for a row that no release names so.
    uint64_t revision() const {
        const std::string_view digits = view_of(key_).substr(HISTORY_HEAD.size());
        uint64_t number = 0;
        (void)std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
        return number;
    }

    // The bytes of the entry; "" if they are damaged.
    std::string_view entry() const {
        row found;
        return read_row(view_of(key_), view_of(data_), &found) ? found.value : std::string_view();
    }

    void put(std::string_view key, const std::string &bytes) {
        MDB_val at = bytes_of(key), data = bytes_of(bytes);
        env_.check(mdb_cursor_put(cursor_, &at, &data, 0), "mdb_put");
    }
    void remove() { env_.check(mdb_cursor_del(cursor_, 0), "mdb_del"); }

  private:
    bool step(MDB_cursor_op op) {
        int rc = mdb_cursor_get(cursor_, &key_, &data_, op);
        if (rc != MDB_NOTFOUND) env_.check(rc, "mdb_cursor_get");
        found_ = rc == MDB_SUCCESS;
        return found_;
    }
    bool within() const { return found_ && is_history(view_of(key_)); }

    const environment &env_;
    MDB_cursor *cursor_;
    bool found_ = false;
    MDB_val key_ = {}, data_ = {};
};

}  // namespace

static std::string key_of_entry(uint64_t revision) {
    return std::string(HISTORY_HEAD) + history_digits(revision);
}

// Removes the oldest entries, so that those from a number on are left; a damaged one goes with them.
static void remove_before(history_rows *rows, uint64_t first) {
    uint64_t place = 0;
    while (rows->first() && !(entry_place(rows->entry(), &place) && place >= first))
        rows->remove();
}

// The number of the next entry. The revisions of a compacted copy begin anew: entries of the original
// are then no part of its history.
static uint64_t next_place(history_rows *rows, uint64_t revision) {
    uint64_t place = 0;
    for (bool found = rows->last(); found; found = rows->previous()) {
        if (rows->revision() >= revision) {
            remove_before(rows, UINT64_MAX);
            return 0;
        }
        if (entry_place(rows->entry(), &place))
            return place + row_room(rows->path(), rows->entry());
    }
    return 0;
}

// Several entries go at once, as each removal writes a further page.
void add_history(const environment &env, MDB_txn *txn, const change_recorder &changes,
                 uint64_t limit) {
    const uint64_t revision = mdb_txn_id(txn) + 1;
    const std::string key = key_of_entry(revision);
    cursor_guard cursor = open_cursor(env, txn);
    history_rows rows(env, cursor.get());
    const uint64_t place = next_place(&rows, revision);
    const std::string entry = changes.entry(place);
    if (entry.empty()) return;
    const uint64_t end = place + row_room(key, entry);
    uint64_t first = end;
    bool known = rows.first() && entry_place(rows.entry(), &first);
    if (!known || end - first > limit) remove_before(&rows, end - std::min(end, limit - limit / 8));
    if (end - place > limit) return;
    std::string bytes;
    write_row(key, key, 0, entry, &bytes);
    rows.put(key, bytes);
}

void read_history(const environment &env, MDB_cursor *cursor, uint64_t since,
                  const history_sink &sink) {
    history_rows rows(env, cursor);
    history_entry entry;
    for (bool found = rows.last(); found && rows.revision() > since; found = rows.previous()) {
        entry.revision = rows.revision();
        if (!read_entry(rows.entry(), &entry)) throw damaged_row(rows.path());
        if (!sink(entry)) return;
    }
}

}  // namespace keyview::host
