// get, ls, tree, explain and watch: keys as they are stored, and what they mean.
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/program_writer.h"
#include "ctl/text.h"
#include "host/if/keyview_admin.h"

namespace keyview::ctl {

static constexpr const char *WHOLE_TREE = "DATABASE";

static admin::keys_result read(const tool &shared, const std::string &path, admin::depth depth) {
    admin::keys_result found = admin::read_keys(path, depth);
    check_result(found, "the key cannot be read", shared.registry);
    return found;
}

// ---- get, ls, tree ------------------------------------------------------------------------------

static view people_value(const std::string &value) {
    return value.empty() ? view{} : view{admin::value_for_people(value)};
}

// For people and as bare text a value comes without its zero byte, for programs as it is stored.
static exit_code run_get(const tool &shared, const std::string &path) {
    admin::keys_result found = read(shared, path, admin::depth::key);
    const admin::key_row &key = found.keys[0];
    if (shared.format == output_format::cmd) {
        write_lines(set_command(key.path, key.value) + "\n");
        return EXIT_DONE;
    }
    bool bare = shared.format == output_format::table || shared.format == output_format::raw;
    show_answer(shared.format, "key",
                {{"path", {key.path}},
                 {"revision", count_view(found.revision)},
                 {"value", bare ? people_value(key.value) : view{key.value}}});
    return EXIT_DONE;
}

static std::string indented(const admin::keys_result &found) {
    std::string out;
    const std::string &top = found.keys[0].path;
    for (const admin::key_row &key : found.keys) {
        std::string_view rest = std::string_view(key.path).substr(top.size());
        auto depth = static_cast<size_t>(std::count(rest.begin(), rest.end(), '.'));
        std::string name = depth == 0 ? key.path : key.path.substr(key.path.rfind('.') + 1);
        out += std::string(2 * depth, ' ') + escaped(name);
        if (!key.value.empty()) out += " = " + escaped(admin::value_for_people(key.value));
        out += "\n";
    }
    return out;
}

static exit_code show_keys(const tool &shared, const admin::keys_result &found) {
    if (shared.format == output_format::cmd) {
        std::string out;
        for (const admin::key_row &key : found.keys)
            out += set_command(key.path, key.value) + "\n";
        write_lines(out);
        return EXIT_DONE;
    }
    view_list rows;
    for (const admin::key_row &key : found.keys)
        rows.push_back({view_fields{{"path", {key.path}}, {"value", {key.value}}}});
    show_answer(shared.format, "keys",
                {{"revision", count_view(found.revision)}, {"keys", {std::move(rows)}}});
    return EXIT_DONE;
}

static exit_code run_ls(const tool &shared, const std::string &path) {
    admin::keys_result found =
        read(shared, path.empty() ? WHOLE_TREE : path, admin::depth::children);
    size_t top = found.keys[0].path.size() + 1;
    found.keys.erase(found.keys.begin());
    bool names = shared.format == output_format::table || shared.format == output_format::raw;
    if (!names) return show_keys(shared, found);
    view_list children;
    for (const admin::key_row &key : found.keys)
        children.push_back({key.path.substr(top)});
    show_result(shared.format, "keys", "keys", {std::move(children)});
    return EXIT_DONE;
}

static exit_code run_tree(const tool &shared, const std::string &path) {
    admin::keys_result found = read(shared, path.empty() ? WHOLE_TREE : path, admin::depth::all);
    if (shared.format != output_format::table) return show_keys(shared, found);
    write_result(indented(found));
    return EXIT_DONE;
}

// ---- explain ------------------------------------------------------------------------------------

static view meaning_view(const admin::key_meaning &meaning) {
    return {view_fields{{"path", {meaning.path}},
                        {"meaning", {meaning.meaning}},
                        {"written_by", {meaning.written_by}},
                        {"read_by", {meaning.read_by}},
                        {"encoding", {meaning.encoding}},
                        {"absence", {meaning.absence}}}};
}

static exit_code run_explain(const tool &shared, const std::string &path) {
    if (!path.empty()) {
        auto meaning = admin::meaning_of(path);
        if (!meaning) {
            throw tool_error{EXIT_NOT_FOUND, path + " has no meaning here", "",
                             "it belongs to others, or is misspelt",
                             "\"keyviewctl explain\" shows all keys that have one"};
        }
        show_result(shared.format, "meaning", "meaning", meaning_view(*meaning));
        return EXIT_DONE;
    }
    view_list rows;
    bool people = shared.format == output_format::table;
    for (const admin::key_meaning &row : admin::key_meanings()) {
        rows.push_back(people ? view{view_fields{{"path", {row.path}}, {"meaning", {row.meaning}}}}
                              : meaning_view(row));
    }
    show_result(shared.format, "meanings", "meanings", {std::move(rows)});
    return EXIT_DONE;
}

// ---- watch --------------------------------------------------------------------------------------

namespace {

struct watch_options {
    std::string path;
    std::string command;
    uint64_t from = 0;
    uint64_t count = 0;
    double seconds = 0;
};

// Looks at the tree again and again. What was written between two looks is told as one change, and
// that it was is told, too.
class watcher {
  public:
    watcher(const tool &shared, watch_options options)
        : shared_(shared),
          options_(std::move(options)),
          path_(options_.path.empty() ? WHOLE_TREE : options_.path) {}

    void run() {
        using std::chrono::steady_clock;
        seen_ = look();
        if (options_.from != 0 && options_.from != seen_.revision) tell_gap();
        auto end = steady_clock::now() + std::chrono::duration<double>(options_.seconds);
        while (options_.count == 0 || told_ < options_.count) {
            std::this_thread::sleep_for(std::chrono::milliseconds(LOOK_EVERY_MS));
            if (options_.seconds > 0 && steady_clock::now() > end) return;
            look_again();
        }
    }

  private:
    static constexpr int LOOK_EVERY_MS = 50;

    // A key that is not there yet is waited for.
    admin::keys_result look() const {
        admin::keys_result found = admin::read_keys(path_, admin::depth::all);
        if (found.code == admin::status::not_found) found = admin::read_revision();
        check_result(found, "the tree cannot be watched", shared_.registry);
        return found;
    }

    void look_again() {
        admin::keys_result now = admin::read_revision();
        check_result(now, "the tree cannot be watched", shared_.registry);
        if (now.revision == seen_.revision) return;
        now = look();
        if (now.revision > seen_.revision + 1) tell_merged(now.revision);
        for (const admin::key_change &change : admin::compare_keys(seen_.keys, now.keys))
            tell_change(now.revision, change);
        seen_ = std::move(now);
    }

    void tell_gap() const {
        if (shared_.format == output_format::table) {
            return write_result("gap: what happened between revisions " +
                                std::to_string(options_.from) + " and " +
                                std::to_string(seen_.revision) + " is not told\n");
        }
        write_json(lines_of("gap", {{"since", count_view(options_.from)},
                                    {"revision", count_view(seen_.revision)}}));
    }

    void tell_merged(uint64_t revision) const {
        if (shared_.format == output_format::table) return;
        write_json(lines_of(
            "merged", {{"since", count_view(seen_.revision)}, {"revision", count_view(revision)}}));
    }

    void tell_change(uint64_t revision, const admin::key_change &change) {
        ++told_;
        view_fields fields = {{"since", count_view(seen_.revision)},
                              {"revision", count_view(revision)}};
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
        FILE *input = popen(options_.command.c_str(), "we");  // NOLINT(cert-env33-c)
        if (input == nullptr) return tell("the command cannot be run: " + options_.command);
        (void)fwrite(line.data(), 1, line.size(), input);  // a command need not read it
        int status = pclose(input);
        if (status != 0) {
            tell("the command ended with " +
                 std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
        }
    }

    const tool &shared_;
    watch_options options_;
    std::string path_;
    admin::keys_result seen_;
    uint64_t told_ = 0;
};

}  // namespace

static exit_code run_watch(const tool &shared, const watch_options &options) {
    bool lines = shared.format == output_format::table || shared.format == output_format::json ||
                 shared.format == output_format::jsonl;
    if (!lines) {
        throw tool_error{EXIT_USAGE, "watch tells a line a change", "", "another format was chosen",
                         "use -o jsonl, or none for people"};
    }
    shared.told->stop();
    watcher(shared, options).run();
    return EXIT_DONE;
}

static void add_watch_command(CLI::App *app, tool *shared) {
    auto options = std::make_shared<watch_options>();
    CLI::App *watch =
        add_command(app, shared, "watch", "Tell each change of a key and of what is below it",
                    [=] { return run_watch(*shared, *options); });
    watch->add_option("KEY", options->path, "The key's path; the whole tree without it");
    watch->add_option("--from", options->from, "The revision that was seen last");
    watch->add_option("--exec", options->command,
                      "A shell command for each change, which gets its JSON line");
    watch->add_option("--count", options->count, "End after so many changes");
    watch->add_option("--for", options->seconds, "End after so many seconds");
}

// ---- The commands -------------------------------------------------------------------------------

void add_key_commands(CLI::App *app, tool *shared) {
    const struct {
        const char *name, *description;
        exit_code (*run)(const tool &shared, const std::string &path);
        bool needed;
    } COMMANDS[] = {
        {"get", "Show the value of a key", run_get, true},
        {"ls", "List the keys one level below a key", run_ls, false},
        {"tree", "Show a key with all that is below it", run_tree, false},
    };
    for (const auto &row : COMMANDS) {
        auto path = std::make_shared<std::string>();
        auto run = row.run;
        add_command(app, shared, row.name, row.description, [=] { return run(*shared, *path); })
            ->add_option("KEY", *path, "The key's path")
            ->required(row.needed);
    }
    auto path = std::make_shared<std::string>();
    add_plain_command(app, shared, "explain",
                      "Tell what a key means, who uses it and how it is stored; or all keys",
                      [=] { return run_explain(*shared, *path); })
        ->add_option("KEY", *path, "The key's path, or one with <db> and such for its names");
    add_watch_command(app, shared);
}

}  // namespace keyview::ctl
