// What may follow on a command line, from the commands themselves and from the registry's names;
// and the scripts by which a shell requests it.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace keyview::ctl {

// A candidate a line for the last word, which may be empty. Silent if the registry does not answer.
std::string candidates_for(const CLI::App &app, std::vector<std::string> line);

// "" for an unknown shell.
std::string completion_script(const std::string &shell);

}  // namespace keyview::ctl
