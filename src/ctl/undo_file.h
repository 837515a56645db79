// The files that take back what a command changed, in a folder of the user's own.
#pragma once

#include <string>

namespace keyview::ctl {

// The path of a file that does not exist yet, in a folder that does: $XDG_STATE_HOME/keyview/undo or
// ~/.local/state/keyview/undo. Removes all but the latest files of that folder.
std::string new_undo_file();

}  // namespace keyview::ctl
