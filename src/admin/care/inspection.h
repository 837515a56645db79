// The state of a registry: damage, configuration, locks, and change sets that stopped half-way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "admin/registry.h"

namespace keyview::admin {

struct check_report {
    problem_list damage;
    uint64_t keys = 0;   // that were inspected
    uint64_t pages = 0;  // of the registry's file
};

// Inspects all of the registry in force for damage: its pages, its rows and their checksums, keys
// that are missing or unconnected, names and values that readers cannot read. Works on a registry
// that is too damaged to be used, and changes nothing; writers wait meanwhile.
check_report check_registry();

// One thing that an inspection of the registry and its surroundings found.
struct symptom {
    std::string subject;  // such as "member 10.0.0.1:2379"
    int32_t health;       // KEYVIEW_HEALTH_*
    std::string text;
};

// Inspects how the registry in force is configured and reached, each member of a cluster, and its
// locks.
std::vector<symptom> diagnose_registry();

// Throws why the databases cannot be enumerated, if they cannot: prsr_list_db then lists none.
void check_listing();

// Who holds or waits for the locks that programs use.
std::vector<lock_user> list_locks();

}  // namespace keyview::admin
