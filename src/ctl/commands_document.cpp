// apply, diff and export: cluster documents into the registry, beside it and out of it.
#include "admin/care/backup.h"
#include "admin/document/document.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"

namespace keyview::ctl {

static exit_code run_apply(const tool &shared, const given_names &names) {
    std::string document = read_file(names[0]);
    return carry_out(shared, {"the document is not applied", names[0], shared.prune},
                     [&](const admin::change_options &options) {
                         return admin::apply_document(document, options);
                     });
}

// A backup is the whole tree, so keys that it does not contain count as differences.
static exit_code run_diff(const tool &shared, const given_names &names) {
    static constexpr const char *WHAT = "the file cannot be compared";
    std::string content = read_file(names[0]);
    // A registry that does not exist would compare as an empty one.
    attempt(WHAT, shared.registry, [] { return admin::registry::open().revision(); });
    return carry_out(
        shared, {WHAT, names[0], false, true}, [&](const admin::change_options &options) {
            return admin::is_backup(content) ? admin::restore_registry(content, true, options)
                                             : admin::apply_document(content, options);
        });
}

static exit_code run_export(const tool &shared, const given_names &names) {
    if (shared.format != output_format::table && shared.format != output_format::json) {
        throw tool_error{EXIT_USAGE, "export writes a JSON document", "",
                         "another format was chosen",
                         "leave -o out; \"tree -o cmd\" writes commands"};
    }
    std::string document =
        attempt("the tree cannot be exported", shared.registry, admin::export_document);
    if (names[0].empty() || names[0] == "-") {
        write_json(document);
    } else {
        replace_file(names[0], document);
    }
    return EXIT_DONE;
}

static constexpr command_row COMMANDS[] = {
    {"apply", "Put a cluster document into the registry, all of it or nothing",
     "FILE --prune --dry-run --if-revision --yes", run_apply},
    {"diff",
     "Show what applying a document, or restoring a backup, would change; exit code 1 if anything",
     "FILE --prune", run_diff},
    {"export", "Write the tree as a cluster document", "[FILE]", run_export},
};

void add_document_commands(CLI::App *app, tool *shared) {
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
