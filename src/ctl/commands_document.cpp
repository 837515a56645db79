// apply, diff and export: cluster documents into the registry, beside it and out of it.
#include "admin/care/backup.h"
#include "admin/care/export.h"
#include "admin/document/document.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/yaml_text.h"

namespace keyview::ctl {

using nlohmann::ordered_json;

static exit_code run_apply(const tool &shared, const given_names &names) {
    static constexpr const char *WHAT = "the document is not applied";
    std::string document = read_document(names[0], WHAT);
    if (admin::is_backup(document)) {
        throw tool_error{EXIT_CONTENT, WHAT, file_label(names[0]),
                         "the file is a backup, no cluster document",
                         "\"keyviewctl restore\" reads it, \"keyviewctl diff\" compares it"};
    }
    admin::ready_request request;
    return carry_out(shared, {WHAT, names[0], shared.prune},
                     [&](const admin::change_options &options) {
                         if (!request) request = admin::read_request(document);
                         std::string().swap(document);  // an assignment would keep its memory
                         return admin::change_registry("", request, options);
                     });
}

// A backup is the whole tree, so keys that it does not contain count as differences.
static exit_code run_diff(const tool &shared, const given_names &names) {
    static constexpr const char *WHAT = "the file cannot be compared";
    std::string content = read_document(names[0], WHAT);
    // A registry that does not exist would compare as an empty one.
    attempt(WHAT, shared.registry, [] { return admin::registry::open().revision(); });
    return carry_out(
        shared, {WHAT, names[0], false, true}, [&](const admin::change_options &options) {
            return admin::is_backup(content) ? admin::restore_registry(content, true, options)
                                             : admin::apply_document(content, options);
        });
}

static exit_code run_export(const tool &shared, const given_names &names) {
    bool yaml = shared.format == output_format::yaml, none = shared.format == output_format::table;
    if (!yaml && !none && shared.format != output_format::json) {
        throw tool_error{EXIT_USAGE, "export writes a document", "", "another format was chosen",
                         "use -o json or yaml, or leave -o out; \"tree -o cmd\" writes commands"};
    }
    const std::string &file = names[0];
    refuse_own_file(file.empty() ? "-" : file, shared.registry);
    admin::exported tree = attempt("the tree cannot be exported", shared.registry,
                                   [&] { return admin::export_document(shared.salvage); });
    yaml = yaml || (none && has_yaml_name(file));
    bool prints = file.empty() || file == "-";
    const ordered_json value = yaml ? ordered_json::parse(tree.document) : nullptr;
    if (prints && yaml) write_yaml(value);
    if (prints && !yaml) write_json(tree.document);
    if (!prints && !tree.left_out.empty()) require_absent(file);
    if (!prints) replace_file(file, yaml ? yaml_of(value, false) : tree.document);
    return report_left_out(shared.registry, tree.left_out);
}

void add_document_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"apply", "Put a cluster document, JSON or YAML, into the registry, all of it or nothing",
         "FILE --prune --dry-run --if-revision --yes", run_apply},
        {"diff",
         "Show what applying a document, or restoring a backup, would change; exit code 1 if anything",
         "FILE --prune", run_diff},
        {"export",
         "Write the tree as a cluster document: JSON, or YAML for -o yaml and names in .yaml",
         "[FILE] --salvage", run_export},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
