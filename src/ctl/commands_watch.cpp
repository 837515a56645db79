// watch: each change of a key and of what is below it, as it happens.
#include <sys/wait.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "ctl/change_source.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "model/folding.h"
#include "model/roots.h"

namespace keyview::ctl {

namespace {

struct watch_options {
    std::string path;
    std::string command;
    uint64_t from = 0;
    uint64_t count = 0;
    double seconds = 0;
};

class watcher {
  public:
    watcher(const tool &shared, watch_options options)
        : shared_(shared),
          options_(std::move(options)),
          path_(options_.path.empty() ? ROOT : options_.path) {}

    // Throws admin::error, too.
    void run() {
        admin::registry registry = admin::registry::open();
        const uint64_t present = registry.revision();
        refuse_future(present);
        const uint64_t from = options_.from != 0 ? options_.from : present;
        bool ends = options_.count != 0 || options_.seconds > 0;
        print_remark("watches " + path_ + " from revision " + std::to_string(from) + " on" +
                     (ends ? "" : "; Ctrl-C ends it"));
        change_source source(std::move(registry), path_, from);
        const change_sink sink = {
            [this](const revision_jump &jump) { report_jump(jump); },
            [this](uint64_t since, uint64_t revision, const admin::key_change &change) {
                report_change(since, revision, change);
            }};
        do {
            source.next([this] { return time_left(); }, sink);
        } while (!reported_all() && time_left() > 0);
    }

  private:
    static constexpr uint32_t WAIT_MS = 2000;

    void refuse_future(uint64_t present) const {
        if (options_.from <= present) return;
        throw tool_error{EXIT_USAGE, "the tree cannot be watched", shared_.registry,
                         "it is at revision " + std::to_string(present) + ", and --from is " +
                             std::to_string(options_.from),
                         "leave --from out to watch from now on"};
    }

    // In milliseconds, WAIT_MS at most.
    uint32_t time_left() const {
        if (options_.seconds <= 0) return WAIT_MS;
        std::chrono::duration<double, std::milli> left = end_ - std::chrono::steady_clock::now();
        return static_cast<uint32_t>(std::clamp<double>(left.count(), 0, WAIT_MS));
    }

    bool reported_all() const { return options_.count != 0 && reported_ >= options_.count; }

    void report_jump(const revision_jump &jump) const {
        if (shared_.format == output_format::table) {
            write_result(std::string(jump.kind) + ": what happened after revision " +
                         std::to_string(jump.since) + " up to " + std::to_string(jump.revision) +
                         " " + jump.what + "\n");
        } else {
            write_json(line_of(jump));
        }
    }

    void report_change(uint64_t since, uint64_t revision, const admin::key_change &change) {
        if (reported_all()) return;
        ++reported_;
        const std::string line = line_of(since, revision, change);
        if (shared_.format == output_format::table) {
            write_result(std::to_string(revision) + " " + change_for_people(change) + "\n");
        } else {
            write_json(line);
        }
        if (!options_.command.empty()) execute(revision, change, line);
    }

    // The command gets the line on its standard input.
    void execute(uint64_t revision, const admin::key_change &change,
                 const std::string &line) const {
        (void)setenv("KEYVIEW_PATH", change.path.c_str(), 1);  // without memory it goes without
        (void)setenv("KEYVIEW_REVISION", std::to_string(revision).c_str(), 1);
        // What runs is the administrator's own command; nothing of the tree goes into it.
        (void)signal(SIGPIPE, SIG_DFL);  // the command inherits it; nothing is written meanwhile
        FILE *input = popen(options_.command.c_str(), "we");  // NOLINT(cert-env33-c)
        (void)signal(SIGPIPE, SIG_IGN);
        if (input == nullptr)
            return print_warning("the command cannot be run: " + options_.command);
        (void)fwrite(line.data(), 1, line.size(), input);  // a command need not read it
        int status = pclose(input);
        if (status != 0) {
            print_warning("the command ended with " + std::to_string(WIFEXITED(status)
                                                                         ? WEXITSTATUS(status)
                                                                         : 128 + WTERMSIG(status)));
        }
    }

    const tool &shared_;
    watch_options options_;
    std::string path_;
    std::chrono::steady_clock::time_point end_ = time_after(options_.seconds);
    uint64_t reported_ = 0;
};

}  // namespace

static exit_code run_watch(const tool &shared, const watch_options &options) {
    bool lines = shared.format == output_format::table || shared.format == output_format::json ||
                 shared.format == output_format::jsonl;
    if (!lines) {
        throw tool_error{EXIT_USAGE, "watch prints a line a change", "",
                         "another format was chosen", "use -o jsonl, or none for people"};
    }
    shared.reporter->stop();
    attempt("the tree cannot be watched", shared.registry, [&] { watcher(shared, options).run(); });
    return EXIT_DONE;
}

void add_watch_command(CLI::App *app, tool *shared) {
    auto options = std::make_shared<watch_options>();
    CLI::App *watch = add_command(
        app, shared, "watch",
        "Print the changes of a key and of what is below it as they happen. On a registry "
        "of one machine, changes in quick succession are reported as one",
        [=] { return run_watch(*shared, *options); });
    watch->add_option("KEY", options->path, "The key's path; the whole tree without it");
    watch->add_option("--from", options->from,
                      "The revision that was seen last, not above the present one");
    watch->add_option("--exec", options->command,
                      "A shell command for each change, which gets its JSON line");
    watch->add_option("--count", options->count, "End after so many changes; 0 is no end");
    add_for_option(watch, &options->seconds);
}

}  // namespace keyview::ctl
