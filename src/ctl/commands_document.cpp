// apply, diff and export: cluster documents into the registry, beside it and out of it.
#include <CLI/CLI.hpp>
#include <memory>

#include "admin/care/backup.h"
#include "admin/document/document.h"
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
    show_changes(shared, attempt_with_file(shared, "the document is not applied", file, [&] {
                     return admin::apply_document(document, options_of(shared, shared.dry_run));
                 }));
    return EXIT_DONE;
}

// A backup is the whole tree, so what it does not hold counts.
static exit_code run_diff(const tool &shared, const std::string &file) {
    static constexpr const char *WHAT = "the file cannot be compared";
    std::string content = read_file(file);
    // A registry that does not exist would compare as an empty one.
    attempt(WHAT, shared.registry, [] { return admin::registry::open().revision(); });
    admin::change_options options = options_of(shared, true);
    admin::change_result differs = attempt_with_file(shared, WHAT, file, [&] {
        return admin::is_backup(content) ? admin::restore_registry(content, true, options)
                                         : admin::apply_document(content, options);
    });
    show_changes(shared, differs);
    return differs.changes.empty() ? EXIT_DONE : EXIT_NO;
}

static exit_code run_export(const tool &shared, const std::string &file) {
    if (shared.format != output_format::table && shared.format != output_format::json) {
        throw tool_error{EXIT_USAGE, "export writes a JSON document", "",
                         "another format was chosen",
                         "leave -o out; \"tree -o cmd\" writes commands"};
    }
    std::string document =
        attempt("the tree cannot be exported", shared.registry, admin::export_document);
    if (file.empty() || file == "-") {
        write_json(document);
    } else {
        replace_file(file, document);
    }
    return EXIT_DONE;
}

// ---- The commands -------------------------------------------------------------------------------

static void add_prune_option(CLI::App *command, tool *shared) {
    command->add_flag("--prune", shared->prune, "Remove what the document does not hold, too");
}

void add_document_commands(CLI::App *app, tool *shared) {
    auto file = std::make_shared<std::string>();
    CLI::App *apply = add_command(app, shared, "apply",
                                  "Put a cluster document into the registry, all of it or nothing",
                                  [=] { return run_apply(*shared, *file); });
    apply->add_option("FILE", *file, "The document; - for standard input")->required();
    add_prune_option(apply, shared);
    add_write_options(apply, shared);

    CLI::App *diff = add_command(
        app, shared, "diff",
        "Show what applying a document, or restoring a backup, would change; exit code 1 if anything",
        [=] {
            shared->dry_run = shared->compares = true;
            return run_diff(*shared, *file);
        });
    diff->add_option("FILE", *file, "The document or backup; - for standard input")->required();
    add_prune_option(diff, shared);

    CLI::App *save = add_command(app, shared, "export", "Write the tree as a cluster document",
                                 [=] { return run_export(*shared, *file); });
    save->add_option("FILE", *file, "Where to write it; standard output without it");
}

}  // namespace keyview::ctl
