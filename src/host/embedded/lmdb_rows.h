// Access to rows within one transaction of LMDB, for readers and writers.
#pragma once

#include <lmdb.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/embedded/environment.h"
#include "host/embedded/row.h"
#include "host/support/error.h"

namespace keyview::host {

// Bytes as LMDB takes them; it does not write to them.
inline MDB_val bytes_of(std::string_view text) {
    return {text.size(), const_cast<char *>(text.data())};
}

inline std::string_view view_of(const MDB_val &bytes) {
    return {static_cast<const char *>(bytes.mv_data), bytes.mv_size};
}

// Whether a row next to the place of an absent key may be its row, with a damaged row key: it is no sound
// row, and no entry of the history. Those are large, and next to the last keys.
bool may_be_stray(std::string_view key, std::string_view bytes) noexcept;

// A cursor that is closed at the end of the scope.
using cursor_guard = std::unique_ptr<MDB_cursor, decltype(&mdb_cursor_close)>;
cursor_guard open_cursor(const environment &env, MDB_txn *txn);

// Iterates over the rows of a range and those behind it. The views end with the next change or with
// the transaction.
class row_scan {
  public:
    row_scan(const environment &env, MDB_cursor *cursor, const key_range &range)
        : env_(env), cursor_(cursor), to_(range.to), key_(bytes_of(range.from)) {
        step(MDB_SET_RANGE);
    }

    bool more() const { return more_; }
    bool in_range() const { return key() < to_; }
    void next() { step(MDB_NEXT); }
    std::string_view key() const { return view_of(key_); }
    std::string_view bytes() const { return view_of(data_); }

  private:
    void step(MDB_cursor_op op) {
        int rc = mdb_cursor_get(cursor_, &key_, &data_, op);
        if (rc != MDB_SUCCESS && rc != MDB_NOTFOUND) env_.check(rc, "mdb_cursor_get");
        more_ = rc == MDB_SUCCESS;
        if (more_) fetch_ahead();
    }

    // Rows that were written together are on pages in a row, each filled from its end. While one is
    // read, the processor fetches what is at the same place of the next one; where nothing is, nothing.
    void fetch_ahead() const {
        constexpr size_t PAGE = 4096, LINE = 64, LINES_OF_A_ROW = 3;
        const char *next = static_cast<const char *>(key_.mv_data) + PAGE;
        for (size_t line = 0; line < LINES_OF_A_ROW; ++line)
            __builtin_prefetch(next - line * LINE);
    }

    const environment &env_;
    MDB_cursor *cursor_;
    std::string_view to_;
    MDB_val key_;
    MDB_val data_ = {};
    bool more_;
};

enum class row_state { absent, sound, damaged };

// Receives the row key and the bytes of a row.
using row_visitor = std::function<void(std::string_view key, std::string_view bytes)>;

// Visits the rows of all keys below a key, damaged ones included.
void visit_below(const environment &env, MDB_cursor *cursor, std::string_view path, reach which,
                 const row_visitor &visit);

// Finds the row of a key. Its views end with the next change or with the transaction. A cursor that
// is near the row finds it sooner.
row_state look_up(const environment &env, MDB_txn *txn, std::string_view path, row *out);
row_state look_up(const environment &env, MDB_cursor *cursor, std::string_view path, row *out);

// Visits the damaged rows that may be the one of an absent key. A damaged row key stays where its
// row was written: next to the true row key, and a hashed one among those with the same head.
void visit_damaged_neighbours(const environment &env, MDB_cursor *cursor, std::string_view path,
                              const row_visitor &visit);

// Like look_up, for callers that need a sound row: false if there is no such key; throws
// failure::content if its row is damaged or may be a damaged neighbour, which it cannot be if the list
// that it would be in is complete and sound.
bool find_row(const environment &env, MDB_txn *txn, std::string_view path, row *out);

host_error damaged_row(std::string_view path);

}  // namespace keyview::host
