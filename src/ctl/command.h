// What every command shares: the options that stand before or behind any of them, and the way a
// group of commands joins the program.
#ifndef KEYVIEW_CTL_COMMAND_H
#define KEYVIEW_CTL_COMMAND_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "ctl/view.h"

namespace keyview::ctl {

struct tool {
    std::string registry;  // its URL
    output_format format = output_format::table;
    std::function<void()> run;  // the chosen command; throws tool_error
};

// A group adds its commands to the app. A new group is a file with such a function, and its row in
// main.cpp.
using command_group = void (*)(CLI::App *app, tool *shared);

void add_look_commands(CLI::App *app, tool *shared);  // list, show
void add_tree_commands(CLI::App *app, tool *shared);  // apply, export

// One command: run takes no arguments, what it needs is bound to it.
CLI::App *add_command(CLI::App *app, tool *shared, const char *name, const char *description,
                      const std::function<void()> &run);

}  // namespace keyview::ctl

#endif
