// Cluster documents: into the registry. docs/keyview-document.md describes them; care/export.h has
// the way out.
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

// The request of a document, for change_registry(): it no longer needs the text.
ready_request read_request(std::string_view document);

}  // namespace keyview::admin
