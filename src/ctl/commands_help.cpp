// errors, config, completion and manual: what the tool knows about itself.
#include <sys/time.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <csignal>
#include <memory>

#include "ctl/command.h"
#include "ctl/completion.h"
#include "ctl/manual.h"
#include "ctl/output.h"
#include "host/if/keyview_host.h"

namespace keyview::ctl {

static view exit_view(const exit_row &row) {
    return {view_fields{{"code", number_view(row.code)},
                        {"word", {row.word}},
                        {"meaning", {row.meaning}},
                        {"do", {row.todo}}}};
}

static exit_code run_errors(const tool &shared, const std::string &code) {
    view_list rows;
    for (const exit_row *row = begin_exits(); row != end_exits(); ++row) {
        if (code.empty() || code == std::to_string(row->code) || code == row->word) {
            rows.push_back(exit_view(*row));
        }
    }
    if (rows.empty()) {
        throw tool_error{EXIT_NOT_FOUND, "there is no exit code " + code, "", "",
                         "\"keyviewctl errors\" shows all of them"};
    }
    return show_result(shared.format, "errors", "errors", {std::move(rows)});
}

static exit_code run_config(tool *shared) {
    view_list rows;
    for (const setting *one : shared->chosen.all()) {
        rows.push_back({view_fields{{"setting", {one->name}},
                                    {"value", optional_view(one->value)},
                                    {"origin", {one->origin}},
                                    {"variable", {one->variable}}}});
    }
    return show_result(shared->format, "config", "config", {std::move(rows)});
}

static exit_code show_text(const std::string &text, const std::string &what,
                           const std::string &todo) {
    if (text.empty()) throw tool_error{EXIT_NOT_FOUND, what, "", "", todo};
    write_result(text);
    return EXIT_DONE;
}

// A shell waits with its prompt meanwhile, so a registry that does not answer soon has no names.
static void end_silently_soon() {
    constexpr suseconds_t LONGEST_US = 200'000;
    (void)signal(SIGALRM, [](int) { _exit(EXIT_DONE); });
    itimerval once = {};
    once.it_value.tv_usec = LONGEST_US;
    (void)setitimer(ITIMER_REAL, &once, nullptr);
}

// The registry of the line that is being written.
static std::string registry_of(const tool &shared, const std::vector<std::string> &words) {
    for (size_t n = 0; n + 1 < words.size(); ++n)
        if (words[n] == "--registry") return words[n + 1];
    return shared.registry;
}

// Asked by a shell at each key: a lock is not waited for, and a failure stays silent.
static exit_code run_complete(const CLI::App &app, const tool &shared,
                              const std::vector<std::string> &words) {
    end_silently_soon();
    (void)keyview_host_set_registry(registry_of(shared, words).c_str());
    (void)keyview_host_set_lock_wait(0);
    write_result(candidates_for(app, words));
    return EXIT_DONE;
}

void add_help_commands(CLI::App *app, tool *shared) {
    auto word = std::make_shared<std::string>();
    add_plain_command(app, shared, "errors", "Tell what the exit codes mean, or one of them", [=] {
        return run_errors(*shared, *word);
    })->add_option("CODE", *word, "The exit code, or its word");
    add_plain_command(app, shared, "config", "Tell each setting and where it comes from",
                      [=] { return run_config(shared); });
    add_plain_command(app, shared, "completion", "Write the script by which a shell completes",
                      [=] {
                          return show_text(completion_script(*word),
                                           "there is no script for " + *word,
                                           "the shells are bash, zsh and fish");
                      })
        ->add_option("SHELL", *word, "bash, zsh or fish")
        ->required();
    add_plain_command(app, shared, "manual", "Write a manual page as roff",
                      [=] {
                          return show_text(
                              manual_page(*app, *word), "there is no page " + *word,
                              "the pages are keyviewctl, keyview-document and keyview-keys");
                      })
        ->add_option("PAGE", *word, "keyviewctl, keyview-document or keyview-keys")
        ->required();
    auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *complete = add_plain_command(app, shared, "__complete", "",
                                           [=] { return run_complete(*app, *shared, *words); });
    complete->group("");
    complete->add_option("WORD", *words, "The words so far");
}

}  // namespace keyview::ctl
