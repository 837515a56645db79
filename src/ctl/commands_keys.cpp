// get, ls, tree and explain: keys as they are stored, and what they mean.
#include <CLI/CLI.hpp>

#include <memory>

#include "admin/admin.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/key_names.h"
#include "ctl/output.h"
#include "ctl/program_writer.h"
#include "ctl/text.h"

namespace keyview::ctl {

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
}

}  // namespace keyview::ctl
