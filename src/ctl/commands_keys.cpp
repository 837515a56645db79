// get, ls, tree, set, rm and explain: keys as they are stored, and what they mean.
#include <CLI/CLI.hpp>

#include <memory>

#include "admin/change/keys.h"
#include "admin/document/base64.h"
#include "admin/document/meanings.h"
#include "admin/document/undo.h"
#include "admin/document/values.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/key_place.h"
#include "ctl/option_words.h"
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
        rows.push_back(shared.keys_only ? view{path}
                                        : view{view_fields{{"path", {path}}, {"value", {value}}}});
    return show_answer(shared.format, "keys",
                       {{"revision", count_view(found.revision)}, {"keys", {std::move(rows)}}});
}

// For people and as bare text a value comes without its zero byte, for programs as it is stored.
static exit_code show_key(const tool &shared, const std::string &path) {
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

// Reads the parent of the prefix, which may end within an element.
static exit_code run_get(const tool &shared, const given_names &names) {
    const std::string &prefix = names[0];
    if (!shared.prefix && !shared.keys_only) return show_key(shared, prefix);
    std::string top(shared.prefix ? parent_path(prefix) : prefix);
    admin::read_keys_result found =
        read(shared, top.empty() ? ROOT : top, shared.prefix ? reach::all_below : reach::key_alone);
    for (auto at = found.keys.begin(); at != found.keys.end();)
        at = at->first.rfind(prefix, 0) == 0 ? std::next(at) : found.keys.erase(at);
    if (found.keys.empty()) {
        throw tool_error{EXIT_NOT_FOUND, "no key can be shown", shared.registry,
                         "no path begins with " + prefix, "\"keyviewctl ls\" lists keys"};
    }
    return show_keys(shared, found);
}

static exit_code run_ls(const tool &shared, const given_names &names) {
    admin::read_keys_result found =
        read(shared, names[0].empty() ? ROOT : names[0], reach::children);
    found.keys.erase(found.keys.begin());
    bool bare = shared.format == output_format::table || shared.format == output_format::raw;
    if (!bare) return show_keys(shared, found);
    view_list children;
    for (const auto &[child, value] : found.keys)
        children.push_back({std::string(last_element(child))});
    return show_result(shared.format, "keys", "keys", {std::move(children)});
}

static exit_code run_tree(const tool &shared, const given_names &names) {
    admin::read_keys_result found =
        read(shared, names[0].empty() ? ROOT : names[0], reach::all_below);
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

static exit_code run_explain(const tool &shared, const given_names &names) {
    const std::string &path = names[0];
    if (shared.fields) return show_fields(shared);
    if (shared.findings) return show_findings(shared);
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

namespace {
struct set_options {
    std::string how;  // of --as
    std::vector<std::string> values;
    bool creates = false;
};
}  // namespace

static exit_code run_set(const tool &shared, const std::string &path, const set_options &chosen) {
    std::vector<std::string> needed;
    bool unchecked = chosen.creates && !chosen.how.empty();
    if (!unchecked) needed = keys_needed(path, chosen.creates);
    std::string value = stored_value(path, chosen.how, chosen.values);
    change_command command = {path + " is not set"};
    command.missing = "\"keyviewctl create\" makes a record; so does --create for its own key";
    return carry_out(shared, command, [&](admin::change_options options) {
        options.present = needed;
        return admin::set_key(path, value, options);
    });
}

static exit_code run_rm(const tool &shared, const given_names &names) {
    if (names[0].empty()) {
        throw tool_error{
            EXIT_USAGE, "nothing is removed", "", "no KEY is given",
            "give a key, or a database, service or instance: see \"keyviewctl rm --help\""};
    }
    return carry_out(shared, {names[0] + " is not removed", "", true},
                     [&](const admin::change_options &options) {
                         return admin::remove_keys({names[0]}, options);
                     });
}

static exit_code run_undo(const tool &shared, const given_names &names) {
    const std::string &change = names[0];
    if (is_revision(change)) {
        change_command command = {"revision " + change + " is not taken back", "", true};
        command.missing = "\"keyviewctl history\" lists the changes that can be taken back";
        return carry_out(shared, command, [&](const admin::change_options &options) {
            return admin::undo_revision(strtoull(change.c_str(), nullptr, 10), shared.overwrite,
                                        options);
        });
    }
    std::string changes = read_file(change);
    return carry_out(shared, {"the changes are not taken back", names[0], true},
                     [&](const admin::change_options &options) {
                         return admin::undo_changes(changes, shared.overwrite, options);
                     });
}

// ---- The commands -------------------------------------------------------------------------------

void add_key_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"get", "Show the value of a key, or the keys that a prefix selects",
         "KEY --prefix --keys-only", run_get},
        {"ls", "List the keys one level below a key, or below the root", "[KEY]", run_ls},
        {"tree", "Show a key, or the root, with all that is below it", "[KEY]", run_tree},
        {"explain",
         "Explain what a key means, which commands use it and how it is stored; or all keys. A path may "
         "have <db> and such for its names",
         "[KEY] --fields --findings", run_explain, true},
        {"rm", "Remove a key with all that is below it", "[KEY] --dry-run --if-revision --yes",
         run_rm},
        {"undo",
         "Take back a change, by its revision in the history or from the file that the answer of its "
         "command names",
         "CHANGE --overwrite --dry-run --if-revision --yes", run_undo},
    };
    add_commands(app, shared, COMMANDS);
    auto path = std::make_shared<given_names>();
    auto chosen = std::make_shared<set_options>();
    CLI::App *set =
        add_command(app, shared, "set",
                    "Replace the value of a key, or create it in its record, checked by what the "
                    "key means",
                    [=] { return run_set(*shared, path->front(), *chosen); });
    add_arguments(set, shared, "KEY --dry-run --if-revision --yes", path);
    set->add_option("VALUE", chosen->values, "The value; the strings of a list");
    set->add_option("--as", chosen->how, "Unchecked: text, list, or bytes in base64")
        ->check(CLI::IsMember(words_of("--as")));
    set->add_flag("--create", chosen->creates,
                  "Also create a new record; with --as, any key at all");
}

}  // namespace keyview::ctl
