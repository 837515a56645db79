// status --follow: the cluster, or one database, on the whole screen, drawn again when it changes.
#pragma once

#include <string>

#include "ctl/command.h"

namespace keyview::ctl {

// database: its name, or "" for all. Ends when a person leaves, or with the signal that ended it.
exit_code run_board(const tool &shared, const std::string &database);

}  // namespace keyview::ctl
