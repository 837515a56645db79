// watch: each change of a key and of what is below it, as it happens.
#include <sys/wait.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <thread>

#include "admin/change/keys.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/program_writer.h"
#include "model/folding.h"
#include "model/roots.h"

namespace keyview::ctl {

// Runs a call of the administration for the command.
template <typename work>
static auto on_registry(const tool &shared, work &&run) {
    return attempt("the tree cannot be watched", shared.registry, run);
}

namespace {

struct watch_options {
    std::string path;
    std::string command;
    uint64_t from = 0;
    uint64_t count = 0;
    double seconds = 0;
};

// Follows the history of a registry that has one. Otherwise polls the tree: writes between two polls
// are reported as one change, after a line that reports the merge.
class watcher {
  public:
    watcher(const tool &shared, watch_options options)
        : shared_(shared),
          options_(std::move(options)),
          path_(options_.path.empty() ? ROOT : options_.path),
          registry_(on_registry(shared_, [] { return admin::registry::open(); })) {}

    void run() {
        uint64_t present = present_revision();
        refuse_future(present);
        revision_ = options_.from != 0 ? options_.from : present;
        bool ends = options_.count != 0 || options_.seconds > 0;
        print_remark("watches " + path_ + " from revision " + std::to_string(revision_) + " on" +
                     (ends ? "" : "; Ctrl-C ends it"));
        if (!follow_history()) poll();
    }

  private:
    static constexpr uint32_t WAIT_MS = 2000, POLL_EVERY_MS = 50;

    uint64_t present_revision() const {
        return on_registry(shared_, [&] { return registry_.revision(); });
    }

    void refuse_future(uint64_t present) const {
        if (options_.from <= present) return;
        throw tool_error{EXIT_USAGE, "the tree cannot be watched", shared_.registry,
                         "it is at revision " + std::to_string(present) + ", and --from is " +
                             std::to_string(options_.from),
                         "leave --from out to watch from now on"};
    }

    // So many milliseconds more, or so many as are left.
    uint32_t time_left(uint32_t most_ms) const {
        if (options_.seconds <= 0) return most_ms;
        std::chrono::duration<double, std::milli> left = end_ - std::chrono::steady_clock::now();
        return static_cast<uint32_t>(std::clamp<double>(left.count(), 0, most_ms));
    }

    bool reported_all() const { return options_.count != 0 && reported_ >= options_.count; }
    bool goes_on() const { return !reported_all() && time_left(WAIT_MS) > 0; }

    // False, at once, if the registry keeps none.
    bool follow_history() {
        for (bool first = true; first || goes_on(); first = false) {
            std::optional<admin::change_batch> next;
            try {
                next = registry_.changes_since(path_, revision_, time_left(WAIT_MS));
            } catch (const admin::error &failed) {
                if (failed.kind != KEYVIEW_FAILURE_CHANGED)
                    fail(failed, "the tree cannot be watched", shared_.registry);
                report_jump("gap", "is forgotten", present_revision());
                continue;
            }
            if (!next) return false;
            for (const admin::noted_change &one : next->changes)
                report_change(revision_, one.revision, one.change);
            revision_ = next->up_to;
        }
        return true;
    }

    void poll() {
        admin::read_keys_result seen = read_tree();
        if (seen.revision != revision_) report_jump("gap", "is not reported", seen.revision);
        while (goes_on()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(time_left(POLL_EVERY_MS)));
            if (present_revision() == revision_) continue;
            admin::read_keys_result now = read_tree();
            uint64_t before = revision_;
            if (now.revision > before + 1)
                report_jump("merged", "is reported as one change", now.revision);
            for (const admin::key_change &change : admin::differences(seen.keys, now.keys))
                report_change(before, now.revision, change);
            revision_ = now.revision;
            seen = std::move(now);
        }
    }

    // A key that does not exist yet has no keys below it either.
    admin::read_keys_result read_tree() const {
        admin::read_keys_result found;
        found.revision = on_registry(shared_, [&] {
            return registry_.read({{path_, reach::all_below}}, &found.keys);
        });
        return found;
    }

    // Reports a range of revisions without single changes; continues from the later revision.
    void report_jump(const char *kind, const char *what, uint64_t revision) {
        if (shared_.format == output_format::table) {
            write_result(std::string(kind) + ": what happened after revision " +
                         std::to_string(revision_) + " up to " + std::to_string(revision) + " " +
                         what + "\n");
        } else {
            write_json(lines_of(
                kind, {{"since", count_view(revision_)}, {"revision", count_view(revision)}}));
        }
        revision_ = revision;
    }

    void report_change(uint64_t since, uint64_t revision, const admin::key_change &change) {
        if (reported_all()) return;
        ++reported_;
        view_fields fields = {{"since", count_view(since)}, {"revision", count_view(revision)}};
        view shown = change_view(change);
        for (auto &field : std::get<view_fields>(shown.value))
            fields.push_back(std::move(field));
        std::string line = lines_of("change", fields);
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
    admin::registry registry_;
    std::chrono::steady_clock::time_point end_ =
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(options_.seconds));
    uint64_t revision_ = 0;  // reported last
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
    watcher(shared, options).run();
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
    watch->add_option("--count", options->count, "End after so many changes");
    watch->add_option("--for", options->seconds, "End after so many seconds")
        ->check(CLI::Range(0.0, 1e9));
}

}  // namespace keyview::ctl
