// How a command and its arguments join the program.
#include "ctl/command.h"

#include <CLI/CLI.hpp>
#include <iterator>
#include <memory>
#include <sstream>

#include "ctl/option_words.h"

namespace keyview::ctl {

// No key path is longer.
static constexpr size_t MAX_NAME = 2047;

namespace {
struct argument_row {
    const char *word, *description;
    bool is_name = false;
    bool tool::*flag = nullptr;  // of an option without a value
};
}  // namespace

static constexpr argument_row ARGUMENTS[] = {
    {"DB", "Name of the database, in any case", true},
    {"SERVICE", "Name of the service, in any case", true},
    {"INSTANCE", "Name of the instance, in any case", true},
    {"--service", "Of this service, not of the database", true},
    {"--instance", "Of this instance; with --service, of the service's instance", true},
    {"ROLE", "The new role, in any case", true},
    {"NODE", "Name of the node", true},
    {"SCOPE", "Scope of the storage manager entry, such as its node", true},
    {"NAME", "Name of the storage manager entry, in any case", true},
    {"KEY", "The key's path"},
    {"FILE", "The file to read or write; - for standard input or output"},
    {"CHANGE", "The revision, or the file; ./17 is a file"},
    {"CONTEXT", "Name of the context, as in [context.NAME] of a settings file", true},
    {"CODE", "The exit code, or its word"},
    {"SHELL", "bash, zsh or fish"},
    {"PAGE", "keyviewctl, which is the usual one, keyview-document or keyview-keys"},
    {"KIND", "databases, nodes or storage-managers"},
    {"--to", "URL of the other registry"},
    {"--dry-run", "Show what would change and write nothing", false, &tool::dry_run},
    {"--yes", "Do not ask for a confirmation", false, &tool::yes},
    {"--prune", "Also remove what the document does not contain", false, &tool::prune},
    {"--force", "Also if it holds keys: those that are not in the copy are removed", false,
     &tool::force},
    {"--prefix", "Show each key whose path begins with these characters", false, &tool::prefix},
    {"--keys-only", "Show paths without their values", false, &tool::keys_only},
    {"--overwrite", "Also where a key has changed since", false, &tool::overwrite},
    {"--resume", "Complete it", false, &tool::resume},
    {"--undo", "Take it back", false, &tool::undo},
    {"--follow", "On the whole screen, drawn again as it changes, until q", false, &tool::follow},
    {"--fields", "The fields of a cluster document instead", false, &tool::fields},
    {"--findings", "What check, lint and export find instead", false, &tool::findings},
    {"--salvage", "Leave out what is damaged, and list it: exit code 8 if there is any", false,
     &tool::salvage},
};

CLI::App *add_command(CLI::App *app, tool *shared, const char *name, const std::string &description,
                      const std::function<exit_code()> &run, bool plain) {
    CLI::App *command = app->add_subcommand(name, description);
    command->fallthrough();
    std::string group = app->get_parent() == nullptr ? "" : app->get_name() + " ";
    command->callback([command, shared, run, plain, full_name = group + name] {
        if (!command->get_subcommands().empty()) return;  // the one below is the chosen one
        shared->command = full_name;
        shared->needs_registry = !plain;
        shared->run = run;
    });
    return command;
}

// What is wrong with a name; empty if nothing is.
static std::string name_fault(const std::string &name) {
    if (name.empty()) return "a name must not be empty";
    return name.size() > MAX_NAME ? "the name is too long" : "";
}

static void add_argument(CLI::App *command, tool *shared, const argument_row &row, bool needed,
                         std::string *value) {
    if (row.flag != nullptr) {
        command->add_flag(row.word, shared->*row.flag, row.description);
        return;
    }
    CLI::Option *option = command->add_option(row.word, *value, row.description)->required(needed);
    if (row.is_name) option->check(name_fault, "", "");
    if (row.word == std::string("KIND")) option->check(CLI::IsMember(words_of(row.word)));
    if (row.word == std::string("ROLE"))
        option->transform(CLI::IsMember(words_of(row.word), CLI::ignore_case));
}

void add_arguments(CLI::App *command, tool *shared, const char *arguments,
                   const std::shared_ptr<given_names> &names) {
    std::istringstream split(arguments);
    using words = std::istream_iterator<std::string>;
    const std::vector<std::string> all(words(split), words{});
    names->resize(all.size());
    auto &known = shared->arguments[command] = {{}, names};
    for (size_t n = 0; n < all.size(); ++n) {
        bool optional = all[n].front() == '[' || (all[n].front() == '-' && all[n] != "--to");
        std::string word = all[n].front() == '[' ? all[n].substr(1, all[n].size() - 2) : all[n];
        known.first.push_back(word);
        if (word == "--if-revision")
            command->add_option(word, shared->if_revision,
                                "Write only if the tree is still at this revision");
        for (const argument_row &row : ARGUMENTS)
            if (word == row.word) add_argument(command, shared, row, !optional, &(*names)[n]);
    }
}

std::function<std::string(const std::string &)> seconds_up_to(double most) {
    return [most](const std::string &text) {
        char *end = nullptr;
        const double seconds = strtod(text.c_str(), &end);
        const bool sound = end != text.c_str() && *end == '\0' && seconds >= 0 && seconds <= most;
        return std::string(sound ? "" : "is no number of seconds from 0 on");
    };
}

void add_for_option(CLI::App *command, double *seconds) {
    command->add_option("--for", *seconds, "End after so many seconds; 0 is no end")
        ->check(seconds_up_to(1e9), "", "");
}

std::chrono::steady_clock::time_point time_after(double seconds) {
    using namespace std::chrono;
    return steady_clock::now() + duration_cast<steady_clock::duration>(duration<double>(seconds));
}

}  // namespace keyview::ctl
