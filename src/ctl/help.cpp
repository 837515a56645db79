// See help.h.
#include "ctl/help.h"

#include <CLI/CLI.hpp>

#include "admin/care/findings.h"

namespace keyview::ctl {

static constexpr char SEE[] = "See what is configured", CHANGE[] = "Change the configuration",
                      KEYS[] = "Work on single keys", SAVE[] = "Save and move a whole tree",
                      REPAIR[] = "Find and repair faults", LOCKS[] = "Use the cluster's locks",
                      TOOL[] = "Use this tool";

// A command below another has no task of its own.
static constexpr struct {
    const char *command, *task, *example;
} COMMAND_EXAMPLES[] = {
    {"status", SEE, "status Sales"},
    {"list", SEE, "list"},
    {"show", SEE, "show Sales"},
    {"roster", SEE, "roster Sales reporting"},
    {"instance-on", SEE, "instance-on Sales node1"},
    {"enabled", SEE, "enabled Sales --service reporting"},
    {"supported", SEE, "supported Sales reporting Sales4"},
    {"policy", SEE, "policy Sales reporting"},
    {"domain", SEE, "domain Sales"},
    {"name", SEE, "name sales"},
    {"stg", SEE, "stg node1 Stg1"},
    {"stg-name", SEE, "stg-name node1 stg1"},
    {"stg-enabled", SEE, "stg-enabled node1 Stg1"},
    {"nodeapps", SEE, "nodeapps node1"},
    {"report", SEE, "report report.html"},
    {"graph", SEE, "graph Sales -o svg"},
    {"serve", SEE, "serve --listen 127.0.0.1:0 --for 1"},
    {"watch", SEE, "watch DATABASE.DATABASES.sales --for 1"},
    {"history", SEE, "history Sales --since 7d"},
    {"apply", CHANGE, "apply --dry-run cluster.json"},
    {"diff", CHANGE, "diff cluster.json"},
    {"enable", CHANGE, "enable Sales --instance Sales1"},
    {"disable", CHANGE, "disable Sales --service reporting --dry-run"},
    {"role", CHANGE, "role Sales PHYSICAL_STANDBY --dry-run"},
    {"create", CHANGE, "create database Fresh --dry-run"},
    {"create database", "", "create database Fresh domain=shop.example.com --dry-run"},
    {"create service", "", "create service Sales late preferred=Sales1,Sales2 --dry-run"},
    {"create instance", "", "create instance Sales Sales5 node=node5 --dry-run"},
    {"edit", CHANGE, "edit Sales"},
    {"undo", CHANGE, "undo changes.json --dry-run"},
    {"get", KEYS, "get DATABASE.DATABASES.sales.ROLE"},
    {"ls", KEYS, "ls DATABASE.DATABASES"},
    {"tree", KEYS, "tree DATABASE.DATABASES.sales"},
    {"set", KEYS, "set DATABASE.DATABASES.sales.DOMAIN shop.example.com"},
    {"rm", KEYS, "rm DATABASE.DATABASES.sandbox --dry-run"},
    {"rm database", "", "rm database sandbox --dry-run"},
    {"rm service", "", "rm service Sales reporting --dry-run"},
    {"rm instance", "", "rm instance Sales Sales4 --dry-run"},
    {"explain", KEYS, "explain DATABASE.DATABASES.sales.ROLE"},
    {"export", SAVE, "export cluster.json"},
    {"backup", SAVE, "backup saved"},
    {"restore", SAVE, "restore --force saved --dry-run"},
    {"copy", SAVE, "copy --to lmdb:/tmp/keyview --dry-run"},
    {"check", REPAIR, "check"},
    {"lint", REPAIR, "lint"},
    {"doctor", REPAIR, "doctor"},
    {"recover", REPAIR, "recover --resume"},
    {"lock", LOCKS, "lock list"},
    {"lock run", "", "lock run LKRT.DATABASE.DATABASES.sales -- echo alone"},
    {"lock list", "", "lock list"},
    {"help", TOOL, "help status"},
    {"version", TOOL, "version"},
    {"errors", TOOL, "errors 5"},
    {"config", TOOL, "config"},
    {"config contexts", "", "config contexts"},
    {"config use-context", "", "config use-context test"},
    {"completion", TOOL, "completion bash"},
    {"manual", TOOL, "manual keyviewctl"},
};

static const CLI::App *below(const CLI::App &app, const std::string &word) {
    for (const CLI::App *command : app.get_subcommands(nullptr))
        if (command->get_name() == word) return command;
    return nullptr;
}

// What a command that inspects does not find.
static std::string coverage(const std::string &command) {
    bool admin::finding_row::*covers = command == "check"    ? &admin::finding_row::by_check
                                       : command == "lint"   ? &admin::finding_row::by_lint
                                       : command == "export" ? &admin::finding_row::by_export
                                                             : nullptr;
    if (covers == nullptr) return "";
    std::string others;
    for (const admin::finding_row &row : admin::finding_rows())
        if (!(row.*covers)) others += (others.empty() ? "" : ", ") + std::string(row.name);
    return "Of what \"keyviewctl explain --findings\" lists it finds all but " + others + ".\n\n";
}

static void add_example(CLI::App *command, const std::string &name) {
    for (const auto &row : COMMAND_EXAMPLES) {
        if (name != row.command) continue;
        if (*row.task != '\0') command->group(row.task);
        command->footer(coverage(name) + "Example:\n  keyviewctl " + row.example);
    }
    for (CLI::App *below : command->get_subcommands(nullptr))
        add_example(below, name + " " + below->get_name());
}

void add_examples(CLI::App *app) {
    for (CLI::App *command : app->get_subcommands(nullptr))
        add_example(command, command->get_name());
}

std::string help_of(const CLI::App &app, const std::vector<std::string> &words) {
    const CLI::App *command = &app;
    std::string name = app.get_name();
    for (const std::string &word : words) {
        command = below(*command, word);
        if (command == nullptr) return "";
        name += " " + word;
    }
    return app.get_formatter()->make_help(command, name, CLI::AppFormatMode::Normal);
}

}  // namespace keyview::ctl
