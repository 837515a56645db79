// Rows of the history. The number of an entry is the count of bytes that all entries before it took, so
// that the first and the last row tell how many bytes there are.
//
// Each change writes a row for its entry. A page of such rows holds few of them, and a tree with many
// pages is one level deeper, a page that each commit then writes. So once the entries have passed a further
// SEALED_BYTES, those that have a row of their own are sealed: they become one row, named for the last of
// them, whose value is beside the tree.
//
// LMDB reuses pages in the order in which commits freed them, a few at a time. The pages of a commit are
// then scattered over the file, and each that has no neighbour is a further request to the disk. When it
// looks for a run of pages it gathers all free ones, and takes them in the order of the file from then on.
// So it gets to look for one now and then: with a small change, and where the file need not grow for it.
#include "host/embedded/lmdb_history.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "host/embedded/lmdb_rows.h"
#include "host/embedded/row.h"
#include "model/roots.h"

namespace keyview::host {

static constexpr uint64_t SEALED_BYTES = 1 << 15;
static constexpr uint64_t GATHER_EVERY = 16;
static constexpr size_t GATHERED_RUN = 11 << 12;  // with its head 12 pages
static constexpr size_t SMALL_ENTRY = 1 << 10;
static constexpr size_t ROOM = 64 << 12;  // more than a small change and the run take

static std::string key_of_entry(uint64_t revision) {
    return history_digits(revision).insert(0, HISTORY_HEAD);
}

static uint64_t place_of(const numbered_entry &one) {
    uint64_t place = 0;
    (void)entry_place(one.bytes, &place);  // those of history_rows have one
    return place;
}

static uint64_t room_of(std::string_view entry) {
    return row_room(HISTORY_HEAD, entry) + HISTORY_DIGITS;
}

namespace {

// A walk over the rows of the history.
class history_rows {
  public:
    history_rows(const environment &env, MDB_cursor *cursor) : env_(env), cursor_(cursor) {}

    bool last() {
        static const auto &behind = *new std::string(std::string(HISTORY_HEAD) + "g");  // any digit
        if (step(MDB_LAST) && view_of(key_) < behind) return within();                  // usually
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

    // The bytes of the row; "" if they are damaged.
    std::string_view value() const {
        row found;
        return read_row(view_of(key_), view_of(data_), &found) ? found.value : std::string_view();
    }

    // The entries of the row, the oldest first; none if it is damaged.
    std::vector<numbered_entry> entries() const {
        const std::string_view bytes = value();
        uint64_t place = 0;
        if (entry_place(bytes, &place)) return {{revision(), bytes}};
        std::vector<numbered_entry> out;
        const bool sound = read_sealed(bytes, &out) &&
                           std::all_of(out.begin(), out.end(), [&](const numbered_entry &one) {
                               return entry_place(one.bytes, &place);
                           });
        if (!sound) out.clear();
        return out;
    }

    // The number of the first entry of the row; false if it is damaged.
    bool place(uint64_t *out) const {
        const std::vector<numbered_entry> all = entries();
        if (!all.empty()) *out = place_of(all.front());
        return !all.empty();
    }

    // The number behind its last entry.
    bool end(uint64_t *out) const {
        const std::vector<numbered_entry> all = entries();
        if (!all.empty()) *out = place_of(all.back()) + room_of(all.back().bytes);
        return !all.empty();
    }

    void put(uint64_t revision, std::string_view value) {
        const std::string key = key_of_entry(revision);
        std::string buffer;
        MDB_val at = bytes_of(key), data = bytes_of(write_row(key, key, 0, value, &buffer));
        env_.check(mdb_cursor_put(cursor_, &at, &data, 0), "mdb_put");
    }
    void remove() { env_.check(mdb_cursor_del(cursor_, 0), "mdb_del"); }

    // By a row that takes a run and gives it back at once.
    void gather_free_pages(uint64_t revision) {
        const std::string key = key_of_entry(revision);
        MDB_val at = bytes_of(key), run = {GATHERED_RUN, nullptr};
        env_.check(mdb_cursor_put(cursor_, &at, &run, MDB_RESERVE), "mdb_put");
        remove();
    }

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

// Removes the oldest rows, so that entries from a number on are left; a damaged row goes with them.
static void remove_before(history_rows *rows, uint64_t first) {
    uint64_t place = 0;
    while (rows->first() && !(rows->place(&place) && place >= first))
        rows->remove();
}

// The number of the next entry. The revisions of a compacted copy begin anew: entries of the original
// are then no part of its history.
static uint64_t next_place(history_rows *rows, uint64_t revision) {
    for (bool found = rows->last(); found; found = rows->previous()) {
        if (rows->revision() >= revision) {
            remove_before(rows, UINT64_MAX);
            return 0;
        }
        uint64_t end = 0;
        if (rows->end(&end)) return end;
    }
    return 0;
}

// Seals the last rows that hold one entry each, back to one that is as large by itself.
static void seal(history_rows *rows, uint64_t size) {
    std::vector<std::pair<uint64_t, std::string>> copies;  // the newest first; a removal moves rows
    uint64_t place = 0;
    while (rows->last() && entry_place(rows->value(), &place) && rows->value().size() < size) {
        copies.emplace_back(rows->revision(), rows->value());
        rows->remove();
    }
    if (copies.empty()) return;
    std::vector<numbered_entry> entries;
    for (auto one = copies.rbegin(); one != copies.rend(); ++one)
        entries.push_back({one->first, one->second});
    rows->put(entries.back().revision, sealed_entries(entries));
}

// Seals, and removes the oldest, before the entries pass a further part of the limit, so that most
// entries cost one row and no more. Several go at once, as each removal writes a further page.
void add_history(const environment &env, MDB_txn *txn, const change_recorder &changes,
                 uint64_t limit) {
    const uint64_t revision = mdb_txn_id(txn) + 1;
    cursor_guard cursor = open_cursor(env, txn);
    history_rows rows(env, cursor.get());
    const uint64_t place = next_place(&rows, revision);
    const std::string entry = changes.entry(place);
    if (entry.empty()) return;
    const uint64_t end = place + room_of(entry);
    const uint64_t part = std::clamp<uint64_t>(limit / 16, 1, SEALED_BYTES);
    if (place == 0 || place / part != end / part) {
        uint64_t first = place;
        const uint64_t most = limit - part;
        const bool known = rows.first() && rows.place(&first);
        if (!known || end - first > most)
            remove_before(&rows, end - std::min(end, most - most / 8));
        if (end - place > limit) return;
        seal(&rows, part);
    }
    if (revision % GATHER_EVERY == 0 && entry.size() <= SMALL_ENTRY && env.has_room(ROOM))
        rows.gather_free_pages(revision);
    rows.put(revision, entry);
}

void read_history(const environment &env, MDB_cursor *cursor, uint64_t since,
                  const history_sink &sink) {
    history_rows rows(env, cursor);
    history_entry entry;
    for (bool found = rows.last(); found && rows.revision() > since; found = rows.previous()) {
        const std::vector<numbered_entry> entries = rows.entries();
        if (entries.empty()) throw damaged_row(rows.path());
        for (auto one = entries.rbegin(); one != entries.rend() && one->revision > since; ++one) {
            entry.revision = one->revision;
            if (!read_entry(one->bytes, &entry)) throw damaged_row(rows.path());
            if (!sink(entry)) return;
        }
    }
}

}  // namespace keyview::host
