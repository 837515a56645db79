// What every command shares: the options that any of them accepts, and the way a
// group of commands joins the program.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/exit_codes.h"
#include "ctl/progress.h"
#include "ctl/settings.h"
#include "ctl/view.h"

// Large: a file that needs more than the calls below includes CLI/CLI.hpp itself.
namespace CLI {
class App;
}

namespace keyview::ctl {

// What a command was given, in the order of its arguments; "" for one that was not.
using given_names = std::vector<std::string>;

struct tool {
    settings chosen;
    std::string registry;         // its URL
    bool registry_given = false;  // by the option, be it ""
    output_format format = output_format::table;
    bool needs_registry = true;
    // What commands have as options; see ARGUMENTS in command.cpp.
    bool dry_run = false, yes = false, prune = false, force = false;
    bool resume = false, undo = false, fields = false, overwrite = false;
    bool findings = false, salvage = false;
    bool prefix = false, keys_only = false, follow = false;
    bool quiet = false, verbose = false;
    std::optional<uint64_t> if_revision;
    // The arguments of each command: what they are called, and their values.
    std::map<const CLI::App *, std::pair<std::vector<std::string>, std::shared_ptr<given_names>>>
        arguments;
    const CLI::App *app = nullptr;
    std::string command;                 // the chosen one's name
    std::function<exit_code()> run;      // it; throws tool_error
    std::unique_ptr<progress> reporter;  // prints remarks while the command runs
};

// A group adds its commands to the app. A new group is a file with such a function, and its row in
// main.cpp, which names the commands.
using command_group = void (*)(CLI::App *app, tool *shared);

void add_show_commands(CLI::App *app, tool *shared);
void add_query_commands(CLI::App *app, tool *shared);
void add_enable_commands(CLI::App *app, tool *shared);
void add_stg_nodeapps_commands(CLI::App *app, tool *shared);
void add_document_commands(CLI::App *app, tool *shared);
void add_key_commands(CLI::App *app, tool *shared);
void add_create_commands(CLI::App *app, tool *shared);
void add_removal_commands(CLI::App *app, tool *shared);  // below rm, which is there
void add_edit_command(CLI::App *app, tool *shared);
void add_watch_command(CLI::App *app, tool *shared);
void add_report_commands(CLI::App *app, tool *shared);
void add_serve_command(CLI::App *app, tool *shared);
void add_history_command(CLI::App *app, tool *shared);
void add_status_command(CLI::App *app, tool *shared);
void add_backup_commands(CLI::App *app, tool *shared);
void add_lock_commands(CLI::App *app, tool *shared);
void add_check_commands(CLI::App *app, tool *shared);
void add_doctor_commands(CLI::App *app, tool *shared);
void add_help_commands(CLI::App *app, tool *shared);

// One command: run takes no arguments, what it needs is bound to it. A plain one uses no registry.
CLI::App *add_command(CLI::App *app, tool *shared, const char *name, const std::string &description,
                      const std::function<exit_code()> &run, bool plain = false);

// The table of what check, lint and export find.
exit_code show_findings(const tool &shared);

// A command whose arguments and options are rows of ARGUMENTS, which is most of them.
struct command_row {
    const char *name;
    const char *description;
    const char *arguments;  // "DB SERVICE": each needed; "DB [INSTANCE]", "DB --service": or not
    exit_code (*run)(const tool &shared, const given_names &names);
    bool plain = false;
};

// Adds the options that arguments lists; the values go to names, in their order.
void add_arguments(CLI::App *command, tool *shared, const char *arguments,
                   const std::shared_ptr<given_names> &names);

// A check of an option's value, which must be a number of seconds from 0 to this one.
std::function<std::string(const std::string &)> seconds_up_to(double most);

// Adds --for, which ends the command after so many seconds; 0 is no end.
void add_for_option(CLI::App *command, double *seconds);
std::chrono::steady_clock::time_point time_after(double seconds);

template <size_t count>
void add_commands(CLI::App *app, tool *shared, const command_row (&rows)[count]) {
    for (const command_row &row : rows) {
        auto names = std::make_shared<given_names>();
        CLI::App *added = add_command(
            app, shared, row.name, row.description,
            [shared, names, &row] { return row.run(*shared, *names); }, row.plain);
        add_arguments(added, shared, row.arguments, names);
    }
}

}  // namespace keyview::ctl
