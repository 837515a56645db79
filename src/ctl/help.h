// The help: the commands by task, each with an example.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace keyview::ctl {

// Gives each command its task, under which the help lists it, and its example.
void add_examples(CLI::App *app);

// The help of the command that the words name, of the whole tool without words; "" if there is none.
std::string help_of(const CLI::App &app, const std::vector<std::string> &words);

}  // namespace keyview::ctl
