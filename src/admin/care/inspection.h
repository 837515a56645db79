// The state of a registry: damage, configuration, locks, and change sets that stopped half-way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "admin/care/findings.h"
#include "admin/registry.h"
#include "model/roots.h"

namespace keyview::admin {

struct inspection_report {
    std::vector<finding> findings;
    uint64_t keys = 0;   // that were inspected
    uint64_t pages = 0;  // of the registry's file
};

// Inspects all of the registry in force, as inspect_registry() does, and its keys: the findings of
// "check" and of "lint".
inspection_report check_registry();
inspection_report lint_registry();

// One thing that an inspection of the registry and its surroundings found.
struct symptom {
    std::string subject;  // such as "member 10.0.0.1:2379"
    int32_t health;       // KEYVIEW_HEALTH_*
    std::string text;
};

// Inspects how the registry in force is configured and reached, each member of a cluster, and its
// locks.
std::vector<symptom> diagnose_registry();

// The databases, or the one of a key, with what keeps readers from reading the name of each.
struct listed_database {
    std::string element;  // of its key
    std::string reason = {};
};
std::vector<listed_database> list_databases(const std::string &key = DB_ROOT);

// Throws why the databases cannot be enumerated, if they cannot: prsr_list_db then lists none.
void check_listing();

// Who holds or waits for the locks that programs use.
std::vector<lock_user> list_locks();

}  // namespace keyview::admin
