// A SQLite file with one table, path to value, without row ids; in WAL mode, its pages mapped and
// cached, its statements prepared once.
#pragma once

#include <sqlite3.h>

#include <string>
#include <vector>

#include "bench/name_list.h"
#include "bench/peer_rows.h"
#include "keyview/if/prsr.h"

namespace keyview::bench {

class sqlite_peer {
  public:
    // Makes the file and puts the rows in.
    sqlite_peer(const std::string &file, const std::vector<peer_row> &rows);
    sqlite_peer(const sqlite_peer &) = delete;
    sqlite_peer &operator=(const sqlite_peer &) = delete;
    ~sqlite_peer();

    // One range select; for free_record.
    prsr_cfg *fetch(const std::string &prefix);

    // The same record by one select for each row, in one transaction.
    prsr_cfg *fetch_by_key(const std::vector<peer_row> &rows);

    // One select over all rows, copying their values; for free_list.
    name_list list();

  private:
    void run(const char *statement);
    sqlite3_stmt *prepare(const char *statement);
    void fill(const std::vector<peer_row> &rows);

    sqlite3 *db_ = nullptr;
    sqlite3_stmt *range_ = nullptr;
    sqlite3_stmt *single_ = nullptr;
    sqlite3_stmt *all_ = nullptr;
    sqlite3_stmt *begin_ = nullptr;
    sqlite3_stmt *commit_ = nullptr;
};

}  // namespace keyview::bench
