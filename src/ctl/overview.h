// The cluster as a whole: each database as its readers see it, and what lint finds.
#pragma once

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "admin/care/inspection.h"
#include "ctl/session.h"

namespace keyview::ctl {

// A database of the listing. What keeps it from being shown in full has an exit code and words.
struct listed_record {
    std::string element;  // of its key
    std::string name;     // the registered one, where it can be read
    prsr::database record;
    exit_code code = EXIT_DONE;
    std::string why = {};
};

// Calls visit for each database, in the order of the listing, or for the one of a key, with its record
// or what keeps it from being read. Several busy databases are waited for as long as one may be.
// Throws if the registry fails as a whole. what: "the status of the cluster cannot be read".
void each_database(const session &library, const char *what,
                   const std::function<void(const listed_record &)> &visit,
                   const std::string &key = DB_ROOT);

// The exit code of "status": the highest one of a database.
template <typename records>
exit_code highest_code(const records &databases) {
    exit_code code = EXIT_DONE;
    for (const auto &one : databases)
        code = std::max(code, one.code);
    return code;
}

// All of it, as of about one moment.
struct overview {
    struct database {
        std::string element, name;
        view row;     // as "status -o json" has it
        view record;  // as "show -o json" has it, or null
        exit_code code;
        std::string why;
    };
    uint64_t revision;  // of the tree, before it was read
    std::vector<database> databases;
    admin::inspection_report lint;
};
overview read_overview(const session &library, const char *what);

// ---- Beside the databases -----------------------------------------------------------------------

// A node with applications, or a storage manager entry.
struct listed_entry {
    std::string scope;    // the element of its key; "" for a node
    std::string element;  // of its key
    std::string name;     // the registered one, where it can be read
};
std::vector<listed_entry> list_nodes(const tool &shared);
std::vector<listed_entry> list_storage_managers(const tool &shared);

// The lists as "list" has them.
view names_view(const std::vector<listed_entry> &nodes);
view scopes_view(const std::vector<listed_entry> &storage_managers);

// Their records, as of about one moment.
struct entry_overview {
    struct record {
        listed_entry of;
        view fields;                           // as the command that shows it has them with -o json
        std::optional<tool_error> error = {};  // why there are none
    };
    std::vector<record> nodes, storage_managers;
};
entry_overview read_entries(const session &library, const char *what);

// ---- Views --------------------------------------------------------------------------------------

// A row of "status", for people or for programs.
view database_row(const listed_record &one, bool people);

// The command that mends a finding; "" where a person has to decide.
std::string remedy_of(const admin::finding &found);

// The fields of the answer of "lint".
view_fields lint_view(const admin::inspection_report &report);

}  // namespace keyview::ctl
