// What every command shares: the options that stand before or behind any of them, and the way a
// group of commands joins the program.
#ifndef KEYVIEW_CTL_COMMAND_H
#define KEYVIEW_CTL_COMMAND_H

#include <functional>
#include <memory>
#include <string>
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

struct tool {
    settings chosen;
    std::string registry;         // its URL
    bool registry_given = false;  // by the option, be it ""
    output_format format = output_format::table;
    bool needs_registry = true;
    // Of commands that change the tree.
    bool dry_run = false;
    bool compares = false;  // a dry run is all that is meant
    bool yes = false;
    bool prune = false;
    uint64_t if_revision = 0;
    std::string command;             // the chosen one's name
    std::function<exit_code()> run;  // it; throws tool_error
    std::unique_ptr<progress> told;  // to a person, while it runs
};

// A group adds its commands to the app. A new group is a file with such a function, and its row in
// main.cpp.
using command_group = void (*)(CLI::App *app, tool *shared);

void add_show_commands(CLI::App *app, tool *shared);          // list, show
void add_query_commands(CLI::App *app, tool *shared);         // roster, role, name, ...
void add_enable_commands(CLI::App *app, tool *shared);        // enable, disable, enabled, supported
void add_stg_nodeapps_commands(CLI::App *app, tool *shared);  // stg, nodeapps, ...
void add_document_commands(CLI::App *app, tool *shared);      // apply, diff, export
void add_key_commands(CLI::App *app, tool *shared);           // get, ls, tree, set, rm, explain
void add_watch_command(CLI::App *app, tool *shared);          // watch
void add_status_command(CLI::App *app, tool *shared);         // status
void add_backup_commands(CLI::App *app, tool *shared);        // backup, restore, copy
void add_lock_commands(CLI::App *app, tool *shared);          // lock
void add_check_commands(CLI::App *app, tool *shared);         // check, lint
void add_doctor_commands(CLI::App *app, tool *shared);        // doctor, recover
void add_help_commands(CLI::App *app, tool *shared);          // errors, config, completion, manual

// One command: run takes no arguments, what it needs is bound to it.
CLI::App *add_command(CLI::App *app, tool *shared, const char *name, const char *description,
                      const std::function<exit_code()> &run);

// The same for a command that asks no registry.
CLI::App *add_plain_command(CLI::App *app, tool *shared, const char *name, const char *description,
                            const std::function<exit_code()> &run);

// One argument, or an option with its value; and an option without one.
enum class need { optional, required };
void add_text(CLI::App *command, const char *name, std::string *text, const char *description,
              need needed = need::optional);
void add_flag(CLI::App *command, const char *name, bool *flag, const char *description);

// --dry-run, --if-revision and --yes.
void add_write_options(CLI::App *command, tool *shared);

// The names that a command was given, in the order of its arguments; "" for one that was not.
using given_names = std::vector<std::string>;

// A command whose arguments are names, which is most of them.
struct name_command {
    const char *name;
    const char *description;
    const char *arguments;  // "DB SERVICE": each needed; "DB [INSTANCE]", "DB --service": or not
    exit_code (*run)(const tool &shared, const given_names &names);
    bool writes = false;  // then it has --dry-run
};

void add_name_command(CLI::App *app, tool *shared, const name_command &command);

template <size_t count>
void add_name_commands(CLI::App *app, tool *shared, const name_command (&commands)[count]) {
    for (const name_command &command : commands)
        add_name_command(app, shared, command);
}

}  // namespace keyview::ctl

#endif
