// backup, restore and copy: the whole tree out of a registry and into one.
#include "admin/care/backup.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace keyview::ctl {

static bool for_people(const tool &shared) {
    return shared.format == output_format::table;
}

static exit_code run_backup(const tool &shared, const given_names &names) {
    const std::string &file = names[0];
    if (file != "-") require_fields(shared.format, "backup");
    refuse_own_file(file, shared.registry);
    admin::backup saved = attempt("the registry is not backed up", shared.registry,
                                  [&] { return admin::backup_registry(shared.salvage); });
    std::string summary =
        std::to_string(saved.keys) + " keys, " + std::to_string(saved.content.size()) + " bytes";
    if (file == "-") {
        write_result(saved.content);
        if (for_people(shared)) print_remark("backed up to standard output: " + summary);
        return report_left_out(shared.registry, saved.left_out);
    }
    if (!saved.left_out.empty()) require_absent(file);
    replace_file(file, saved.content, PRIVATE_FILE);
    if (for_people(shared)) {
        write_result("backed up to " + escaped(file) + ": " + summary + "\n");
    } else {
        show_answer(shared.format, "backup",
                    {{"file", {file}},
                     {"bytes", count_view(saved.content.size())},
                     {"revision", count_view(saved.revision)},
                     {"keys", count_view(saved.keys)}});
    }
    return report_left_out(shared.registry, saved.left_out);
}

static exit_code run_restore(const tool &shared, const given_names &names) {
    std::string content = read_file(names[0]);
    if (content.rfind('{', 0) == 0) {
        throw tool_error{
            EXIT_CONTENT, "the backup is not restored", file_label(names[0]),
            "the backup is not sound: the file is JSON, such as a cluster document",
            "\"keyviewctl apply\" reads a document, \"keyviewctl undo\" a list of changes"};
    }
    exit_code code = carry_out(shared, {"the backup is not restored", names[0], shared.force},
                               [&](const admin::change_options &options) {
                                   return admin::restore_registry(content, shared.force, options);
                               });
    if (for_people(shared) && !shared.dry_run) {
        write_result("the registry " + escaped(shared.registry) + " is as in " +
                     escaped(file_label(names[0])) + ": " +
                     std::to_string(admin::keys_in(content)) + " keys\n");
    }
    return code;
}

static exit_code run_copy(const tool &shared, const given_names &names) {
    const std::string &url = names[0];
    if (url.empty())
        throw tool_error{EXIT_USAGE, "the registry is not copied", "", "--to is empty",
                         "give the URL of the other registry"};
    admin::problem_list left_out;
    (void)carry_out(shared, {"the registry is not copied", "", shared.force, false, url},
                    [&](const admin::change_options &options) {
                        return admin::copy_registry(url, shared.force, options,
                                                    shared.salvage ? &left_out : nullptr);
                    });
    return report_left_out(shared.registry, left_out);
}

void add_backup_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"backup", "Write the whole tree, as of one moment, into a file with mode 0600",
         "FILE --salvage", run_backup},
        {"restore", "Make the tree what a backup holds, all of it or nothing",
         "FILE --force --dry-run --if-revision --yes", run_restore},
        {"copy", "Copy the whole tree into another registry",
         "--to --force --dry-run --if-revision --yes --salvage", run_copy},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
