// get, ls, tree, set, rm and explain: keys as they are stored, and what they mean.
#include <CLI/CLI.hpp>

#include <memory>

#include "admin/change/keys.h"
#include "admin/document/base64.h"
#include "admin/document/meanings.h"
#include "admin/document/values.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/program_writer.h"
#include "ctl/text.h"
#include "model/folding.h"
#include "model/roots.h"

namespace keyview::ctl {

static admin::read_keys_result read(const tool &shared, const std::string &path, reach depth) {
    return attempt("the key cannot be read", shared.registry,
                   [&] { return admin::read_keys(path, depth); });
}

// ---- get, ls, tree ------------------------------------------------------------------------------

static view people_value(const std::string &value) {
    return value.empty() ? view{} : view{admin::value_for_people(value)};
}

// For people and as bare text a value comes without its zero byte, for programs as it is stored.
static exit_code run_get(const tool &shared, const std::string &path) {
    admin::read_keys_result found = read(shared, path, reach::key_alone);
    const std::string &value = found.keys.begin()->second;
    if (shared.format == output_format::cmd) {
        write_lines(set_command(path, value) + "\n");
        return EXIT_DONE;
    }
    bool bare = shared.format == output_format::table || shared.format == output_format::raw;
    return show_answer(shared.format, "key",
                       {{"path", {path}},
                        {"revision", count_view(found.revision)},
                        {"value", bare ? people_value(value) : view{value}}});
}

static std::string indented(const admin::key_map &keys) {
    std::string out;
    size_t top = keys.begin()->first.size();
    for (const auto &[path, value] : keys) {
        auto depth = static_cast<size_t>(
            std::count(path.begin() + static_cast<ptrdiff_t>(top), path.end(), '.'));
        out += std::string(2 * depth, ' ') +
               escaped(depth == 0 ? std::string_view(path) : last_element(path));
        if (!value.empty()) out += " = " + escaped(admin::value_for_people(value));
        out += "\n";
    }
    return out;
}

static exit_code show_keys(const tool &shared, const admin::read_keys_result &found) {
    if (shared.format == output_format::cmd) {
        std::string out;
        for (const auto &[path, value] : found.keys)
            out += set_command(path, value) + "\n";
        write_lines(out);
        return EXIT_DONE;
    }
    view_list rows;
    for (const auto &[path, value] : found.keys)
        rows.push_back({view_fields{{"path", {path}}, {"value", {value}}}});
    return show_answer(shared.format, "keys",
                       {{"revision", count_view(found.revision)}, {"keys", {std::move(rows)}}});
}

static exit_code run_ls(const tool &shared, const std::string &path) {
    admin::read_keys_result found = read(shared, path.empty() ? ROOT : path, reach::children);
    found.keys.erase(found.keys.begin());
    bool names = shared.format == output_format::table || shared.format == output_format::raw;
    if (!names) return show_keys(shared, found);
    view_list children;
    for (const auto &[child, value] : found.keys)
        children.push_back({std::string(last_element(child))});
    return show_result(shared.format, "keys", "keys", {std::move(children)});
}

static exit_code run_tree(const tool &shared, const std::string &path) {
    admin::read_keys_result found = read(shared, path.empty() ? ROOT : path, reach::all_below);
    if (shared.format != output_format::table) return show_keys(shared, found);
    write_result(indented(found.keys));
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

static exit_code show_fields(const tool &shared) {
    view_list rows;
    for (const admin::document_field &row : admin::document_fields()) {
        view_list words;
        for (const std::string &word : row.words)
            words.push_back({word});
        rows.push_back({view_fields{{"record", {row.record}},
                                    {"field", {row.field}},
                                    {"type", {row.type}},
                                    {"key", {row.key}},
                                    {"limit", count_view(row.limit)},
                                    {"words", {std::move(words)}}}});
    }
    return show_result(shared.format, "fields", "fields", {std::move(rows)});
}

static exit_code run_explain(const tool &shared, const std::string &path, bool fields) {
    if (fields) return show_fields(shared);
    if (!path.empty()) {
        auto meaning = admin::meaning_of(path);
        if (!meaning) {
            throw tool_error{EXIT_NOT_FOUND, path + " has no meaning here", "",
                             "it belongs to other programs, or is misspelt",
                             "\"keyviewctl explain\" shows all keys that have one"};
        }
        return show_result(shared.format, "meaning", "meaning", meaning_view(*meaning));
    }
    view_list rows;
    bool people = shared.format == output_format::table;
    for (const admin::key_meaning &row : admin::key_meanings()) {
        rows.push_back(people ? view{view_fields{{"path", {row.path}}, {"meaning", {row.meaning}}}}
                              : meaning_view(row));
    }
    return show_result(shared.format, "meanings", "meanings", {std::move(rows)});
}

// ---- set, rm ------------------------------------------------------------------------------------

static std::string stored_value(const std::string &path, const std::string &how,
                                const std::vector<std::string> &values) {
    std::string bytes;
    if (how == "base64") {
        if (values.size() == 1 && admin::from_base64(values[0], &bytes)) return bytes;
        throw tool_error{EXIT_USAGE, path + " is not set", "", "the value is no base64",
                         "give one value in base64"};
    }
    admin::encoding encoding = how == "text"   ? admin::encoding::text
                               : how == "list" ? admin::encoding::list
                                               : admin::encoding::as_meant;
    try {
        return admin::encode_for(path, encoding, values);
    } catch (const admin::error &failed) {
        throw tool_error{
            host_failure_of(failed.kind).code, path + " is not set", "", failed.what(),
            "\"keyviewctl explain " + path + "\" shows what it holds; --as stores other values"};
    }
}

static exit_code run_set(const tool &shared, const std::string &path, const std::string &how,
                         const std::vector<std::string> &values) {
    std::string value = stored_value(path, how, values);
    show_changes(shared, attempt(path + " is not set", shared.registry, [&] {
                     return admin::set_key(path, value, options_of(shared, shared.dry_run));
                 }));
    return EXIT_DONE;
}

static exit_code run_rm(const tool &shared, const std::string &path) {
    confirm(shared, [&] { return admin::remove_key(path, options_of(shared, true)); });
    show_changes(shared, attempt(path + " is not removed", shared.registry, [&] {
                     return admin::remove_key(path, options_of(shared, shared.dry_run));
                 }));
    return EXIT_DONE;
}

// ---- The commands -------------------------------------------------------------------------------

static void add_set_and_rm(CLI::App *app, tool *shared) {
    auto path = std::make_shared<std::string>();
    auto how = std::make_shared<std::string>();
    auto values = std::make_shared<std::vector<std::string>>();
    CLI::App *set = add_command(app, shared, "set",
                                "Create a key, or replace its value, checked by what the key means",
                                [=] { return run_set(*shared, *path, *how, *values); });
    set->add_option("KEY", *path, "The key's path")->required();
    set->add_option("VALUE", *values, "The value; the strings of a list");
    set->add_option("--as", *how, "Unchecked: text, list, or bytes in base64")
        ->check(CLI::IsMember({"text", "list", "base64"}));
    add_write_options(set, shared);
    CLI::App *rm = add_command(app, shared, "rm", "Remove a key with all that is below it",
                               [=] { return run_rm(*shared, *path); });
    rm->add_option("KEY", *path, "The key's path")->required();
    add_write_options(rm, shared);
}

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
    auto fields = std::make_shared<bool>(false);
    CLI::App *explain = add_plain_command(
        app, shared, "explain",
        "Explain what a key means, which commands use it and how it is stored; or all keys",
        [=] { return run_explain(*shared, *path, *fields); });
    add_text(explain, "KEY", path.get(), "The key's path, or one with <db> and such for its names");
    add_flag(explain, "--fields", fields.get(), "The fields of a cluster document instead");
    add_set_and_rm(app, shared);
}

}  // namespace keyview::ctl
