// help, version, errors, config, completion and manual: what the tool knows about itself.
#include <sys/time.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <memory>

#include "ctl/command.h"
#include "ctl/completion.h"
#include "ctl/help.h"
#include "ctl/manual.h"
#include "ctl/output.h"
#include "ctl/terminal.h"
#include "host/if/keyview_host.h"

namespace keyview::ctl {

static view exit_view(const exit_row &row) {
    return {view_fields{{"code", number_view(row.code)},
                        {"word", {row.word}},
                        {"meaning", {row.meaning}},
                        {"do", {row.todo}}}};
}

static exit_code run_errors(const tool &shared, const given_names &names) {
    const std::string &code = names[0];
    view_list rows;
    for (const exit_row &row : exit_rows())
        if (code.empty() || code == std::to_string(row.code) || code == row.word)
            rows.push_back(exit_view(row));
    if (rows.empty()) {
        throw tool_error{EXIT_NOT_FOUND, "there is no exit code " + code, "", "",
                         "\"keyviewctl errors\" shows all of them"};
    }
    return show_result(shared.format, "errors", "errors", {std::move(rows)});
}

static exit_code run_config(const tool &shared, const given_names &) {
    view_list rows;
    settings chosen = shared.chosen;
    for (const setting *one : chosen.all()) {
        rows.push_back({view_fields{{"setting", {one->name}},
                                    {"value", optional_view(one->value)},
                                    {"origin", {one->origin}},
                                    {"variable", {one->variable}}}});
    }
    return show_result(shared.format, "config", "config", {std::move(rows)});
}

static exit_code run_contexts(const tool &shared, const given_names &) {
    view_list rows;
    for (const known_context &one : known_contexts()) {
        rows.push_back(
            {view_fields{{"context", {one.name}},
                         {"current", flag_view(one.name == shared.chosen.context.value ? 1 : 0)},
                         {"registry", optional_view(one.registry)},
                         {"file", {one.file}}}});
    }
    return show_result(shared.format, "contexts", "contexts", {std::move(rows)});
}

static exit_code run_use_context(const tool &shared, const given_names &names) {
    std::vector<known_context> known = known_contexts();
    auto found = std::find_if(known.begin(), known.end(),
                              [&](const known_context &one) { return one.name == names[0]; });
    if (found == known.end()) {
        throw tool_error{EXIT_NOT_FOUND, "there is no context " + names[0], user_settings_file(),
                         "no settings file has a section [context." + names[0] + "]",
                         "\"keyviewctl config contexts\" lists those that are there"};
    }
    set_usual_context(names[0]);
    for (const char *variable : {shared.chosen.context.variable, shared.chosen.registry.variable})
        if (!environment(variable).empty())
            print_remark(std::string(variable) + " is set and goes before the context");
    return show_result(shared.format, "context", "context",
                       {view_fields{{"name", {names[0]}},
                                    {"registry", optional_view(found->registry)},
                                    {"file", {user_settings_file()}}}});
}

static exit_code show_text(const std::string &text, const std::string &what,
                           const std::string &todo) {
    if (text.empty()) throw tool_error{EXIT_NOT_FOUND, what, "", "", todo};
    write_result(text);
    return EXIT_DONE;
}

static exit_code run_help(const tool &shared, const std::vector<std::string> &words) {
    return show_text(help_of(*shared.app, words), "there is no such command",
                     "\"keyviewctl help\" shows all of them");
}

static exit_code run_version(const tool &shared, const given_names &) {
    if (shared.format == output_format::table) {
        write_result("keyviewctl " KEYVIEW_VERSION "\n");
        return EXIT_DONE;
    }
    return show_result(shared.format, "version", "release", {std::string(KEYVIEW_VERSION)});
}

static exit_code run_completion(const tool &, const given_names &names) {
    return show_text(completion_script(names[0]), "there is no script for " + names[0],
                     "the shells are bash, zsh and fish");
}

static exit_code run_manual(const tool &shared, const given_names &names) {
    const std::string page = names[0].empty() ? "keyviewctl" : names[0];
    return show_text(manual_page(*shared.app, page), "there is no page " + names[0],
                     "the pages are keyviewctl, keyview-document and keyview-keys");
}

// A shell waits with its prompt meanwhile, so a registry that does not answer soon has no names.
static void end_silently_soon() {
#ifdef KEYVIEW_SANITIZED  // for tests alone; its start takes most of that time
    constexpr time_t LONGEST_S = 2;
    constexpr suseconds_t LONGEST_US = 0;
#else
    constexpr time_t LONGEST_S = 0;
    constexpr suseconds_t LONGEST_US = 200'000;
#endif
    (void)signal(SIGALRM, [](int) { _exit(EXIT_DONE); });
    const itimerval once = {{}, {LONGEST_S, LONGEST_US}};
    (void)setitimer(ITIMER_REAL, &once, nullptr);
}

// The registry of the line that is being written.
static std::string registry_of(const tool &shared, const std::vector<std::string> &words) {
    for (size_t n = 0; n + 1 < words.size(); ++n)
        if (words[n] == "--registry") return words[n + 1];
    return shared.registry;
}

// Run by a shell at each key: does not wait for locks, and a failure stays silent.
static exit_code run_complete(const tool &shared, const std::vector<std::string> &words) {
    end_silently_soon();
    (void)keyview_host_set_registry(registry_of(shared, words).c_str());
    (void)keyview_host_set_lock_wait(0);
    write_result(candidates_for(*shared.app, words));
    return EXIT_DONE;
}

static constexpr command_row CONTEXT_COMMANDS[] = {
    {"contexts", "List the contexts of the settings files", "", run_contexts, true},
    {"use-context", "Use a context from now on: a line of the user's settings file", "CONTEXT",
     run_use_context, true},
};

void add_help_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"version", "Print the version", "", run_version, true},
        {"errors", "Show what the exit codes mean, or one of them", "[CODE]", run_errors, true},
        {"config", "Show each setting and where it comes from", "", run_config, true},
        {"completion", "Write the script by which a shell completes", "SHELL", run_completion,
         true},
        {"manual", "Write a manual page as roff, for \"man -l -\"", "[PAGE]", run_manual, true},
    };
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *help = add_command(
        app, shared, "help", "Show the commands, or how to use one of them",
        [=] { return run_help(*shared, *words); }, true);
    help->add_option("COMMAND", *words, "The command, such as status or lock run");
    add_commands(app, shared, COMMANDS);
    add_commands(app->get_subcommand("config"), shared, CONTEXT_COMMANDS);
    CLI::App *complete = add_command(
        app, shared, COMPLETE, "", [=] { return run_complete(*shared, *words); }, true);
    complete->group("");
    complete->add_option("WORD", *words, "The words so far");
}

}  // namespace keyview::ctl
