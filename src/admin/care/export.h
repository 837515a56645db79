// The tree as a cluster document.
#pragma once

#include <cstdint>
#include <string>

#include "admin/error.h"

namespace keyview::admin {

struct exported {
    std::string document;  // ends with a newline
    problem_list left_out{problem_list::NO_LIMIT};
};

// The whole tree, as of one moment, as a cluster document. Applied to an empty registry it gives the
// same keys and values byte for byte. Takes no lock.
//
// Damage, and what a document cannot express, is KEYVIEW_FAILURE_CONTENT. With salvage it is left
// out and listed; a record whose name is damaged, missing or none has its key's element as its name.
exported export_document(bool salvage);

// One database, by its key, in the same way; the tree's revision goes to *revision.
// KEYVIEW_FAILURE_NOT_FOUND if there is no such database.
std::string export_database(const std::string &key, uint64_t *revision);

}  // namespace keyview::admin
