// A command that the tool runs as a process of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace keyview::ctl {

// Starts a command with its arguments, with the default signals; its code is 127 if it cannot be run,
// as a shell has it. -1, with errno, if there is no process.
pid_t start_child(std::vector<std::string> command);

// The exit code of a status of waitpid, as a shell has it.
int exit_code_in(int status);

}  // namespace keyview::ctl
