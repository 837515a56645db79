// The history in the cluster: an entry for each change, put in the transaction of the change, which
// also deletes the entries of changes that are longer ago. No one reads for it.
#pragma once

#include <cstdint>
#include <string>

#include "cluster/request.h"
#include "cluster/session.h"
#include "host/registry/history.h"

namespace keyview::host {

// What one change may take of the history, in bytes.
constexpr uint64_t LARGEST_ENTRY = uint64_t{32} << 10;

// Adds an entry to a transaction; "" is none.
void add_history(wire_ops *ops, session *cluster, const std::string &entry);

// Delivers the entries after a revision, the latest first.
void read_history(session *cluster, uint64_t since, const history_sink &sink);

}  // namespace keyview::host
