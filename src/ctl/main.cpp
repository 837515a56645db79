// keyviewctl: the administrator's tool. Options, the groups of commands, and the way out.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "admin/registry.h"
#include "ctl/command.h"
#include "ctl/completion.h"
#include "ctl/exit_codes.h"
#include "ctl/help.h"
#include "ctl/option_words.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "host/if/keyview_host.h"
#include "model/locks.h"

namespace keyview::ctl {

// A start describes the commands of the groups that have the one in the command line, because all of
// them take longer than most commands do; all, if no group has it.
static constexpr struct {
    command_group add;
    const char *commands;  // those that need no other group
} GROUPS[] = {
    {add_status_command, "status"},
    {add_show_commands, "list show"},
    {add_query_commands, "roster role policy domain name instance-on"},
    {add_stg_nodeapps_commands, "stg stg-name stg-enabled nodeapps"},
    {add_watch_command, "watch"},
    {add_enable_commands, "enable disable enabled supported"},
    {add_document_commands, "apply diff export"},
    {add_key_commands, "get ls tree set rm undo explain"},
    {add_backup_commands, "backup restore copy"},
    {add_check_commands, "check lint"},
    {add_doctor_commands, "doctor recover"},
    {add_lock_commands, "lock"},
    {add_help_commands, "version errors config completion __complete"},
    {add_create_commands, "create"},
    {add_removal_commands, "rm"},
    {add_edit_command, "edit"},
    {add_report_commands, "report graph"},
    {add_serve_command, "serve"},
    {add_history_command, "history"},
};

// If a standard descriptor is closed, the next file opened takes its number, and output would go
// into the registry. These fail instead on every use.
static void occupy_standard_descriptors() {
    constexpr int FLAGS[] = {O_WRONLY, O_RDONLY, O_RDONLY};
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (fcntl(fd, F_GETFD) < 0) (void)open("/dev/null", FLAGS[fd]);
    }
}

// Under "lock run" an apply holds a lock, and so an open file, for each database, entry and node of
// its document.
static void raise_file_limit() {
    rlimit files = {};
    if (getrlimit(RLIMIT_NOFILE, &files) != 0) return;
    files.rlim_cur = files.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &files);  // the old limit does for all but large documents
}

// The format of an error in the command line: that of -o, as far as the line was understood.
static output_format format_of(const CLI::App &app) {
    const CLI::results_t &words = app.get_option("--output")->results();
    for (const output_word &one : output_words())
        if (!words.empty() && words.back() == one.word) return one.means;
    return output_format::table;
}

static void add_options(CLI::App *app, tool *shared) {
    app->set_version_flag("-V,--version", "keyviewctl " KEYVIEW_VERSION,
                          "Print the version and exit");
    app->set_help_flag("-h,--help", "Print this and exit");
    app->footer(exit_code_help());
    app->require_subcommand(0, 1);  // a missing one is reported below, in better words
    settings &chosen = shared->chosen;
    app->add_option("--registry", chosen.registry.option,
                    "URL of the registry, such as lmdb:/var/lib/keyview")
        ->each([shared](const std::string &) { shared->registry_given = true; });
    app->add_option("--context", chosen.context.option,
                    "Use the settings of this context of the settings files")
        ->check([](const std::string &name) { return std::string(name.empty() ? "is empty" : ""); },
                "", "");
    app->add_option(
           "-o,--output", chosen.output.option,
           "table, for people; wide, without shortened names; json, yaml, jsonl (a line an "
           "item), tsv, raw (a bare value) or cmd (commands that rebuild what is shown); html, svg "
           "and dot for report and graph")
        ->check(CLI::IsMember(words_of("--output")));
    app->add_option("--color", chosen.color.option,
                    "auto, always or never; auto respects NO_COLOR and TERM=dumb")
        ->check(CLI::IsMember(words_of("--color")));
    CLI::Option *quiet =
        app->add_flag("-q,--quiet", shared->quiet, "Print no remarks and no progress");
    app->add_flag("-v,--verbose", shared->verbose,
                  "Print what is being done, and how long it takes")
        ->excludes(quiet);
}

// Adds the commands that the words of a command line need.
static void add_groups(CLI::App *app, tool *shared, const std::vector<std::string> &words) {
    std::string chosen = first_argument(*app, words);
    const bool completes = chosen == COMPLETE;
    if (completes) chosen = first_argument(*app, line_to_complete(words));
    auto has = [](const auto &group, const std::string &name) {
        const std::vector<std::string> commands = CLI::detail::split(group.commands, ' ');
        return std::find(commands.begin(), commands.end(), name) != commands.end();
    };
    const bool known = std::any_of(std::begin(GROUPS), std::end(GROUPS),
                                   [&](const auto &group) { return has(group, chosen); });
    for (const auto &group : GROUPS)
        if (!known || has(group, chosen) || (completes && has(group, COMPLETE)))
            group.add(app, shared);
    add_examples(app);
}

static constexpr const char *TRY_HELP =
    "\"keyviewctl --help\" shows the commands, and --help behind one its options";

// ": did you mean status?", if a word is no command or option but near one.
static std::string command_meant(const CLI::App &app) {
    std::vector<std::string> commands, options;
    const CLI::App *chosen = &app;
    for (;; chosen = chosen->get_subcommands().front()) {
        for (const CLI::Option *option : chosen->get_options())
            for (const std::string &name : option->get_lnames())
                options.push_back("--" + name);
        if (chosen->get_subcommands().empty()) break;
    }
    for (const CLI::App *command : chosen->get_subcommands(nullptr))
        if (!command->get_group().empty()) commands.push_back(command->get_name());
    for (const std::string &word : app.remaining(true)) {
        bool option = word.size() > 1 && word[0] == '-';
        std::string meant = nearest(word.substr(0, option ? word.find('=') : word.npos),
                                    option ? options : commands);
        if (!meant.empty()) return ": did you mean " + meant + "?";
    }
    return "";
}

// Help and version are results like any other.
static int end_parse(const CLI::App &app, const CLI::ParseError &error) {
    if (error.get_exit_code() == 0) {
        std::ostringstream text;
        app.exit(error, text, text);
        write_result(text.str());
        return EXIT_DONE;
    }
    report_error(format_of(app), {EXIT_USAGE, "the command line cannot be used", "",
                                  error.what() + command_meant(app), TRY_HELP});
    return EXIT_USAGE;
}

// The command may run under a lock of its own parents, who wait for it. Those of other registries do
// not concern it.
static void keep_locks_above(const tool &shared) {
    std::istringstream lines(environment(LOCKS_ABOVE));
    std::string kept;
    for (std::string line; std::getline(lines, line);)
        if (line.find("\t" + absolute_url(shared.registry) + "\t") != line.npos)
            kept += (kept.empty() ? "" : "\n") + line;
    (void)(kept.empty() ? unsetenv(LOCKS_ABOVE) : setenv(LOCKS_ABOVE, kept.c_str(), 1));
}

static void choose_registry(const tool &shared) {
    const char *todo =
        "use --registry or KEYVIEW_REGISTRY with a URL such as lmdb:/var/lib/keyview";
    if (shared.registry.empty()) {
        throw tool_error{EXIT_USAGE, "no registry is chosen", "", "", todo};
    }
    print_step("uses the registry " + shown_url(shared.registry) + ", chosen by " +
               shared.chosen.registry.origin);
    if (!shared.chosen.context.value.empty())
        print_step("uses the context " + shared.chosen.context.value + ", chosen by " +
                   shared.chosen.context.origin);
    keep_locks_above(shared);
    if (keyview_host_set_registry(shared.registry.c_str()) != 0) {
        throw tool_error{EXIT_USAGE, "the registry cannot be used", shown_url(shared.registry),
                         keyview_host_last_error(), todo};
    }
}

// One of the words of a table; the settings files may hold others.
template <typename row>
static const row &row_of(const setting &one, const rows<row> &words) {
    for (const row &known : words)
        if (one.value == known.word) return known;
    throw tool_error{EXIT_USAGE, std::string("the setting ") + one.name + " cannot be used",
                     one.origin, one.value + " is none of its words", "see \"keyviewctl --help\""};
}

static void refuse_foreign(const output_word &output, const std::string &command) {
    if (output.only_for == nullptr || output.only_for == command) return;
    throw tool_error{EXIT_USAGE, std::string("-o ") + output.word + " cannot show this", "",
                     std::string("only \"") + output.only_for + "\" writes it",
                     "use -o json, or leave -o out"};
}

static void set_lock_wait(const setting &one) {
    char *end = nullptr;
    double wait_s = strtod(one.value.c_str(), &end);
    bool sound = *end == '\0' && wait_s >= 0 && wait_s <= 86400;
    if (sound && keyview_host_set_lock_wait(static_cast<int64_t>(wait_s * 1000)) == 0) return;
    throw tool_error{EXIT_USAGE, "the setting lock_wait cannot be used", one.origin,
                     one.value + " is no number of seconds from 0 to 86400", "correct it"};
}

// For the kit, which has it from the environment, and for the commands that are started.
static void set_history(const setting &one) {
    if (one.origin == one.variable) return;
    static constexpr uint64_t MOST = uint64_t{1} << 30;
    uint64_t bytes = 0;
    const char *end = one.value.data() + one.value.size();
    auto [at, failed] = std::from_chars(one.value.data(), end, bytes);
    bool sound = failed == std::errc() && at == end && bytes <= MOST;
    if (sound && setenv(one.variable, one.value.c_str(), 1) == 0) return;
    throw tool_error{EXIT_USAGE, "the setting history cannot be used", one.origin,
                     one.value + " is no number of bytes from 0 to " + std::to_string(MOST),
                     "correct it"};
}

static void apply_settings(tool *shared) {
    settings &chosen = shared->chosen;
    chosen.resolve(shared->command.rfind("config ", 0) == 0);  // these choose another context
    if (shared->registry_given) chosen.registry.value = chosen.registry.option;
    shared->registry = chosen.registry.value;
    const output_word &output = row_of(chosen.output, output_words());
    shared->format = output.means;
    refuse_foreign(output, shared->command);
    choose_width(output.whole);
    choose_color(row_of(chosen.color, color_words()).means);
    choose_remarks(shared->quiet     ? remarks::none
                   : shared->verbose ? remarks::all
                                     : remarks::usual,
                   for_programs(shared->format));
    set_lock_wait(chosen.lock_wait);
    set_history(chosen.history);
}

// An unknown name may be misspelt.
static void add_suggestion(const tool &shared, tool_error *error) {
    if (error->code != EXIT_NOT_FOUND) return;
    const CLI::App *chosen = shared.app;
    while (!chosen->get_subcommands().empty())
        chosen = chosen->get_subcommands().front();
    auto found = shared.arguments.find(chosen);
    if (found == shared.arguments.end()) return;
    const auto &[words, names] = found->second;
    given_arguments given;
    for (size_t n = 0; n < words.size(); ++n)
        given.emplace_back(words[n], (*names)[n]);
    std::string meant = name_meant(given);
    if (!meant.empty()) error->todo = "did you mean " + meant + "? " + error->todo;
}

static void add_lock_above(tool_error *error) {
    if (error->code != EXIT_LOCK) return;
    std::istringstream words(error->why);
    const std::string lines = environment(LOCKS_ABOVE);
    for (std::string word; words >> word;) {
        const std::string line(line_of_lock(lines, word));
        if (line.empty()) continue;
        error->why = "the lock " + word +
                     " is held by the \"lock run\" that runs this command, process " +
                     line.substr(0, line.find('\t'));
        error->todo = "run this command outside of it";
        return;
    }
}

static void report_wait(void *reporter, keyview_bytes name, keyview_bytes holder) {
    static_cast<progress *>(reporter)->waits(admin::text_of(name), admin::text_of(holder));
}

static int run(int argc, char **argv, output_format *format) {
    tool shared;
    CLI::App app("Administers the key tree of a database cluster", "keyviewctl");
    shared.app = &app;
    add_options(&app, &shared);
    add_groups(&app, &shared, {argv + std::min(argc, 1), argv + argc});
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        *format = format_of(app);
        return end_parse(app, error);
    }
    *format = format_of(app);
    apply_settings(&shared);
    *format = shared.format;
    if (!shared.run) throw tool_error{EXIT_USAGE, "no command is given", "", "", TRY_HELP};
    if (shared.needs_registry) choose_registry(shared);
    shared.reporter = std::make_unique<progress>(
        shared.command, shared.needs_registry && !shared.quiet && !for_programs(shared.format));
    shared.reporter->start();
    keyview_lock_observe_waits(report_wait, shared.reporter.get());
    exit_code code = EXIT_DONE;
    try {
        code = shared.run();
    } catch (tool_error &error) {
        add_suggestion(shared, &error);
        add_lock_above(&error);
        throw;
    }
    print_step("ends with exit code " + std::to_string(code));
    return code;
}

}  // namespace keyview::ctl

int main(int argc, char **argv) {
    using namespace keyview::ctl;
    occupy_standard_descriptors();
    raise_file_limit();
    (void)setenv("GRPC_VERBOSITY", "NONE", 0);  // the tool reports errors, once
    (void)signal(SIGPIPE, SIG_IGN);             // a closed pipe is seen where it is written to
    (void)signal(SIGCHLD, SIG_DFL);             // an inherited SIG_IGN would hide how a child ends
    output_format format = output_format::table;
    try {
        return run(argc, argv, &format);
    } catch (const reader_left &) {
        // As any other program ends then, with all guards done.
        (void)signal(SIGPIPE, SIG_DFL);
        (void)raise(SIGPIPE);
        return EXIT_INTERNAL;  // it was held back
    } catch (const tool_error &error) {
        report_error(format, error);
        return error.code;
    } catch (const std::exception &error) {
        report_error(format, {EXIT_INTERNAL, "the command failed", "", error.what(), ""});
        return EXIT_INTERNAL;
    }
}
