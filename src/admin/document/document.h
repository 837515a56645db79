// Cluster documents: into the registry, and out of it. docs/keyview-document.md describes them.
#pragma once

#include <string>
#include <string_view>

#include "admin/change/plan.h"

namespace keyview::admin {

// Puts a cluster document into the registry in force: creates and changes keys and, with prune,
// removes what the document does not hold. A registry that does not exist yet is created.
//
// All of the document goes in or nothing does. The exclusive locks of every database, storage
// manager entry and node of the document, and of what is removed, are held meanwhile. Applying a
// document twice changes nothing the second time.
//
// KEYVIEW_FAILURE_CONTENT if the document is invalid, or does not fit the registry.
change_result apply_document(std::string_view document, const change_options &options);

// The whole tree, as of one moment, as a cluster document that ends with a newline. Applied to an
// empty registry it gives the same keys and values byte for byte. Takes no lock.
//
// KEYVIEW_FAILURE_CONTENT if the tree holds something that a document cannot express; nothing is
// left out silently.
std::string export_document();

}  // namespace keyview::admin
