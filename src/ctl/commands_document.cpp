// apply, diff, export, set and rm: what creates, changes and removes keys.
#include <CLI/CLI.hpp>
#include <memory>

#include "admin/admin.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"

namespace keyview::ctl {

// ---- Documents ----------------------------------------------------------------------------------

static exit_code run_apply(const tool &shared, const std::string &file) {
    std::string document = read_file(file);
    if (shared.prune) {
        confirm(shared, [&] { return admin::apply_document(document, options_of(shared, true)); });
    }
    admin::change_result applied =
        admin::apply_document(document, options_of(shared, shared.dry_run));
    check_result(applied, "the document is not applied", place_of(shared, applied, file));
    show_changes(shared, applied);
    return EXIT_DONE;
}

// A backup is the whole tree, so what it does not hold counts.
static exit_code run_diff(const tool &shared, const std::string &file) {
    std::string content = read_file(file);
    // Nothing is like a registry that is not there, which rather is a mistake.
    check_result(admin::read_revision(), "the file cannot be compared", shared.registry);
    admin::change_options options = options_of(shared, true);
    admin::change_result differs = admin::is_backup(content)
                                       ? admin::restore_registry(content, true, options)
                                       : admin::apply_document(content, options);
    check_result(differs, "the file cannot be compared", place_of(shared, differs, file));
    show_changes(shared, differs);
    return differs.changes.empty() ? EXIT_DONE : EXIT_NO;
}

static exit_code run_export(const tool &shared, const std::string &file) {
    if (shared.format != output_format::table && shared.format != output_format::json) {
        throw tool_error{EXIT_USAGE, "export writes a JSON document", "",
                         "another format was chosen",
                         "leave -o out; \"tree -o cmd\" writes commands"};
    }
    admin::export_result exported = admin::export_document();
    check_result(exported, "the tree cannot be exported", shared.registry);
    if (file.empty() || file == "-") {
        write_json(exported.document);
    } else {
        replace_file(file, exported.document);
    }
    return EXIT_DONE;
}

// ---- Keys ---------------------------------------------------------------------------------------

static std::string stored_value(const std::string &path, const std::string &how,
                                const std::vector<std::string> &values) {
    std::string bytes;
    if (how == "base64") {
        if (values.size() == 1 && admin::bytes_of_base64(values[0], &bytes)) return bytes;
        throw tool_error{EXIT_USAGE, path + " is not set", "", "the value is no base64",
                         "give one value in base64"};
    }
    admin::encoding encoding = how == "text"   ? admin::encoding::text
                               : how == "list" ? admin::encoding::list
                                               : admin::encoding::as_meant;
    admin::encoded_result encoded = admin::encode_for(path, encoding, values);
    bool meaning = encoded.code == admin::status::content;
    if (encoded.code != admin::status::done) {
        throw tool_error{meaning ? EXIT_CONTENT : admin_failure_of(encoded.code).code,
                         path + " is not set", "", encoded.text,
                         "\"keyviewctl explain " + path +
                             "\" tells what it holds; --as stores "
                             "other values"};
    }
    return encoded.value;
}

static exit_code run_set(const tool &shared, const std::string &path, const std::string &how,
                         const std::vector<std::string> &values) {
    admin::change_result changed =
        admin::set_key(path, stored_value(path, how, values), options_of(shared, shared.dry_run));
    check_result(changed, path + " is not set", shared.registry);
    show_changes(shared, changed);
    return EXIT_DONE;
}

static exit_code run_rm(const tool &shared, const std::string &path) {
    confirm(shared, [&] { return admin::remove_key(path, options_of(shared, true)); });
    admin::change_result changed = admin::remove_key(path, options_of(shared, shared.dry_run));
    check_result(changed, path + " is not removed", shared.registry);
    show_changes(shared, changed);
    return EXIT_DONE;
}

// ---- The commands -------------------------------------------------------------------------------

static void add_prune_option(CLI::App *command, tool *shared) {
    command->add_flag("--prune", shared->prune, "Remove what the document does not hold, too");
}

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

void add_tree_commands(CLI::App *app, tool *shared) {
    auto file = std::make_shared<std::string>();
    CLI::App *apply = add_command(app, shared, "apply",
                                  "Put a cluster document into the registry, all of it or nothing",
                                  [=] { return run_apply(*shared, *file); });
    apply->add_option("FILE", *file, "The document; - for standard input")->required();
    add_prune_option(apply, shared);
    add_write_options(apply, shared);

    CLI::App *diff = add_command(
        app, shared, "diff",
        "Tell what applying a document, or restoring a backup, would change; exit code 1 if anything",
        [=] {
            shared->dry_run = shared->compares = true;
            return run_diff(*shared, *file);
        });
    diff->add_option("FILE", *file, "The document or backup; - for standard input")->required();
    add_prune_option(diff, shared);

    CLI::App *save = add_command(app, shared, "export", "Write the tree as a cluster document",
                                 [=] { return run_export(*shared, *file); });
    save->add_option("FILE", *file, "Where to write it; standard output without it");
    add_set_and_rm(app, shared);
}

}  // namespace keyview::ctl
