// An LMDB environment used directly: the floor of what the engine costs. No checksums, no locks
// beside the engine's own, a read transaction that is renewed and a cursor that is kept.
#pragma once

#include <lmdb.h>

#include <string>
#include <vector>

#include "bench/name_list.h"
#include "bench/peer_rows.h"
#include "keyview/if/prsr.h"

namespace keyview::bench {

class lmdb_peer {
  public:
    // Makes an environment in a new directory and puts the rows in.
    lmdb_peer(const std::string &directory, const std::vector<peer_row> &rows);
    // Opens the environment in a directory.
    explicit lmdb_peer(const std::string &directory);
    lmdb_peer(const lmdb_peer &) = delete;
    lmdb_peer &operator=(const lmdb_peer &) = delete;
    ~lmdb_peer();

    // One pass of the cursor over the rows of a database; for free_record.
    prsr_cfg *fetch(const std::string &prefix);

    // The same record by one look-up for each row, their names given.
    prsr_cfg *fetch_by_key(const std::vector<peer_row> &rows);

    // One pass over all rows, copying their values; for free_list.
    name_list list();

    // A row by its name, and the one behind all others.
    peer_row row(const std::string &name);
    peer_row last_row();

    // Replaces rows and waits until that is on the disk.
    void commit(const std::vector<peer_row> &rows);

  private:
    void open(const std::string &directory);
    void open_reader();
    void begin();

    MDB_env *env_ = nullptr;
    MDB_txn *txn_ = nullptr;
    MDB_cursor *cursor_ = nullptr;
    MDB_dbi dbi_ = 0;
};

}  // namespace keyview::bench
