// Changes of the tree within one write transaction, and the row access that reading shares with it.
#ifndef KEYVIEW_HOST_EMBEDDED_LMDB_WRITER_H
#define KEYVIEW_HOST_EMBEDDED_LMDB_WRITER_H

#include <lmdb.h>

#include <string_view>

#include "host/embedded/environment.h"
#include "host/embedded/row.h"
#include "host/registry/store.h"
#include "host/support/error.h"

namespace keyview::host {

// Bytes as LMDB takes them; it does not write to them.
inline MDB_val bytes_of(std::string_view text) {
    return {text.size(), const_cast<char *>(text.data())};
}

inline std::string_view view_of(const MDB_val &bytes) {
    return {static_cast<const char *>(bytes.mv_data), bytes.mv_size};
}

// Finds a key; its views end with the next change or with the transaction.
bool find_row(const environment &env, MDB_txn *txn, std::string_view path, row *out);

// Goes over the rows from the begin of a range on, those of other keys included: see below() for
// rows whose place is cut. Its views end with the next change or with the transaction.
class row_scan {
  public:
    row_scan(const environment &env, MDB_cursor *cursor, const place_range &range)
        : env_(env), cursor_(cursor), to_(range.to), key_(bytes_of(range.from)) {
        step(MDB_SET_RANGE);
    }

    bool more() const { return more_; }
    bool in_range() const { return place() < to_; }
    void next() { step(MDB_NEXT); }
    std::string_view place() const { return view_of(key_); }
    std::string_view bytes() const { return view_of(data_); }

  private:
    void step(MDB_cursor_op op) {
        int rc = mdb_cursor_get(cursor_, &key_, &data_, op);
        if (rc != MDB_SUCCESS && rc != MDB_NOTFOUND) env_.check(rc, "mdb_cursor_get");
        more_ = rc == MDB_SUCCESS;
    }

    const environment &env_;
    MDB_cursor *cursor_;
    std::string_view to_;
    MDB_val key_;
    MDB_val data_ = {};
    bool more_;
};

// Whether path is a child of top, or anything below it.
bool below(std::string_view path, std::string_view top, reach which);

host_error damaged_row(std::string_view place);

class lmdb_writer {
  public:
    lmdb_writer(const environment &env, MDB_txn *txn) : env_(env), txn_(txn) {}

    void carry_out(const change &one);

    // Replaces the value of a key; false if there is none. A value that is there already is not
    // written again.
    bool replace(std::string_view path, std::string_view value);

    bool changed() const { return counts_.created + counts_.replaced + counts_.removed > 0; }
    const change_counts &counts() const { return counts_; }

  private:
    void create(std::string_view path, std::string_view value);
    void remove(std::string_view path);
    bool exists(std::string_view path);
    void add_children(std::string_view path, int32_t more);
    void put_row(std::string_view path, uint32_t children, std::string_view value);
    void delete_place(std::string_view place);

    const environment &env_;
    MDB_txn *txn_;
    change_counts counts_;
};

}  // namespace keyview::host

#endif
