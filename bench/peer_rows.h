// How the compared stores lay out a database: one row for each key of the tree, named so that a
// whole record is one range in the order in which it is built. A row's name is the database, then
// the list and the element of an instance or a service where it belongs to one, and one byte, last,
// for its kind. The row of a list holds how many elements of each sort follow, so that an array is
// allocated once. This suits the engines better than the tree's own paths would.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench/workload.h"

namespace keyview::bench {

enum row_kind : uint8_t {
    DB_OWN = 0x01,
    DB_ALIAS,
    DB_ALIAS_IP,
    DB_HOME,
    DB_SPFILE,
    DB_DB_NAME,
    DB_ROLE,
    DB_START_OPTIONS,
    DB_POLICY,
    DB_DOMAIN,
    DB_ENABLED,
    DB_ENV,
    INST_LIST = 0x10,
    SRV_LIST,
    INST_OWN = 0x20,
    INST_NODE,
    INST_ENABLED,
    INST_ENV,
    SRV_OWN = 0x30,
    SRV_ENV,
    SRV_POLICY,
    SRV_ENABLED,
    SRV_INST_LIST,
    SRV_INST_OWN = 0x40,
    SRV_INST_TYPE,
    SRV_INST_ENABLED,
};

// The value of a list's row: two numbers, the second one only for the instances of a service.
struct list_counts {
    uint32_t first;   // elements; of a service: those that are preferred
    uint32_t second;  // of a service: those that are available
};

struct peer_row {
    std::string name;
    std::string value;
};

// The rows of a database, sorted by name.
std::vector<peer_row> peer_rows(const std::vector<tree_key> &keys);

// What the names of all rows of a database start with: its folded name and a zero byte.
std::string row_prefix(const char *database);

}  // namespace keyview::bench
