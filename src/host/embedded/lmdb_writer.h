// Changes of the tree within one write transaction, and the row access that reading shares with it.
#ifndef KEYVIEW_HOST_EMBEDDED_LMDB_WRITER_H
#define KEYVIEW_HOST_EMBEDDED_LMDB_WRITER_H

#include <lmdb.h>

#include <functional>
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

// Finds a key; its views end with the next change or with the transaction.
bool find_row(const environment &env, MDB_txn *txn, std::string_view path, row *out);

// Visits place and bytes of all rows in the ranges of a key, those of other keys included: see
// below() for rows whose place is cut.
void scan_rows(const environment &env, MDB_cursor *cursor, std::string_view path, reach which,
               const std::function<void(std::string_view, std::string_view)> &visit);

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
