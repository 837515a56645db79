// What may follow on a command line, from the commands themselves and from the registry's names;
// and the scripts by which a shell requests it.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace keyview::ctl {

// The command by which a shell requests it, hidden from the help. The words of the line follow it,
// perhaps after "--", and the last one is the one that is written.
constexpr const char *COMPLETE = "__complete";

// The words of the line before the last one, from those of the request.
std::vector<std::string> line_to_complete(const std::vector<std::string> &request);

// The first word of a line that is no option and no value of one, which is its command; "" if there is
// none.
std::string first_argument(const CLI::App &app, const std::vector<std::string> &line);

// A candidate a line for the last word, which may be empty. Silent if the registry does not answer.
std::string candidates_for(const CLI::App &app, std::vector<std::string> line);

// "" for an unknown shell.
std::string completion_script(const std::string &shell);

}  // namespace keyview::ctl
