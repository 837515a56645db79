// Taking back what a command changed, from the list of its changes.
#pragma once

#include <cstdint>
#include <string_view>

#include "admin/change/plan.h"

namespace keyview::admin {

// Brings the keys of a list of changes (JSON of the kind "changes") back to what they were before it,
// byte for byte, all of them or none. KEYVIEW_FAILURE_CHANGED if one of them, or a key below one that
// the list created, is neither as the list left it nor as it was before, unless overwrite is set.
change_result undo_changes(std::string_view text, bool overwrite, const change_options &options);

// The same for a change of the history, by the revision that the tree had with it.
// KEYVIEW_FAILURE_NOT_FOUND if the history does not have it, or not all of its values.
change_result undo_revision(uint64_t revision, bool overwrite, const change_options &options);

}  // namespace keyview::admin
