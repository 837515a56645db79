// The history of a registry on one machine: a row for each change, named by its revision in 16 digits,
// so that the rows are in their order. They are keys without a parent: to add one changes no other row.
#pragma once

#include <lmdb.h>

#include <cstdint>

#include "host/embedded/environment.h"
#include "host/registry/history.h"

namespace keyview::host {

// Adds the entry of a change in its write transaction and removes the oldest ones, so that all take
// no more than limit bytes.
void add_history(const environment &env, MDB_txn *txn, const change_recorder &changes,
                 uint64_t limit);

// Delivers the entries after a revision, the latest first. Throws failure::content for a damaged one.
void read_history(const environment &env, MDB_cursor *cursor, uint64_t since,
                  const history_sink &sink);

}  // namespace keyview::host
