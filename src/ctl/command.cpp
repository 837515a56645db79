// How a command and its arguments join the program.
#include "ctl/command.h"

#include <CLI/CLI.hpp>
#include <iterator>
#include <memory>
#include <sstream>

#include "model/words.h"

namespace keyview::ctl {

// No key path is longer.
static constexpr size_t MAX_NAME = 2047;

static constexpr struct {
    const char *word, *description;
} ARGUMENTS[] = {
    {"DB", "Name of the database, in any case"},
    {"SERVICE", "Name of the service, in any case"},
    {"INSTANCE", "Name of the instance, in any case"},
    {"--service", "Of this service, not of the database"},
    {"--instance", "Of this instance; with --service, of the service's instance"},
    {"ROLE", "The new role, in any case"},
    {"NODE", "Name of the node"},
    {"SCOPE", "Scope of the storage manager entry, such as its node"},
    {"NAME", "Name of the storage manager entry, in any case"},
};

CLI::App *add_command(CLI::App *app, tool *shared, const char *name, const char *description,
                      const std::function<exit_code()> &run) {
    CLI::App *command = app->add_subcommand(name, description);
    command->fallthrough();
    std::string group = app->get_parent() == nullptr ? "" : app->get_name() + " ";
    command->callback([shared, run, full_name = group + name] {
        shared->command = full_name;
        shared->run = run;
    });
    return command;
}

CLI::App *add_plain_command(CLI::App *app, tool *shared, const char *name, const char *description,
                            const std::function<exit_code()> &run) {
    CLI::App *command = add_command(app, shared, name, description, run);
    command->callback([shared, run] {
        shared->needs_registry = false;
        shared->run = run;
    });
    return command;
}

void add_text(CLI::App *command, const char *name, std::string *text, const char *description,
              need needed) {
    command->add_option(name, *text, description)->required(needed == need::required);
}

void add_flag(CLI::App *command, const char *name, bool *flag, const char *description) {
    command->add_flag(name, *flag, description);
}

static void add_dry_run(CLI::App *command, tool *shared) {
    command->add_flag("--dry-run", shared->dry_run, "Tell what would change and write nothing");
}

void add_write_options(CLI::App *command, tool *shared) {
    add_dry_run(command, shared);
    command->add_option("--if-revision", shared->if_revision,
                        "Write only if the tree is still at this revision");
    command->add_flag("--yes", shared->yes, "Do not ask");
}

// What is wrong with a name; empty if nothing is.
static std::string name_fault(const std::string &name) {
    if (name.empty()) return "a name must not be empty";
    return name.size() > MAX_NAME ? "the name is too long" : "";
}

static void add_argument(CLI::App *command, std::string word, std::string *value) {
    bool needed = word.front() != '[' && word.front() != '-';
    if (word.front() == '[') word = word.substr(1, word.size() - 2);
    const char *description = "";
    for (const auto &row : ARGUMENTS) {
        if (word == row.word) description = row.description;
    }
    CLI::Option *option = command->add_option(word, *value, description);
    option->required(needed)->check(name_fault, "", "");
    if (word == "ROLE")
        option->transform(CLI::IsMember(
            std::vector<std::string>(std::begin(ROLES), std::end(ROLES)), CLI::ignore_case));
}

void add_name_command(CLI::App *app, tool *shared, const name_command &command) {
    std::istringstream split(command.arguments);
    using words = std::istream_iterator<std::string>;
    const std::vector<std::string> arguments(words(split), words{});
    auto names = std::make_shared<given_names>(arguments.size());
    CLI::App *added =
        add_command(app, shared, command.name, command.description,
                    [shared, names, &command] { return command.run(*shared, *names); });
    for (size_t n = 0; n < arguments.size(); ++n)
        add_argument(added, arguments[n], &(*names)[n]);
    if (command.writes) add_dry_run(added, shared);
}

}  // namespace keyview::ctl
