// backup, restore and copy: the whole tree out of a registry and into one.
#include "admin/care/backup.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"

namespace keyview::ctl {

static exit_code run_backup(const tool &shared, const given_names &names) {
    const std::string &file = names[0];
    admin::backup saved =
        attempt("the registry is not backed up", shared.registry, admin::backup_registry);
    if (file == "-") {
        write_result(saved.content);
        return EXIT_DONE;
    }
    replace_file(file, saved.content, PRIVATE_FILE);
    return show_answer(shared.format, "backup",
                       {{"file", {file}},
                        {"revision", count_view(saved.revision)},
                        {"keys", count_view(saved.keys)}});
}

static exit_code run_restore(const tool &shared, const given_names &names) {
    std::string content = read_file(names[0]);
    return carry_out(shared, {"the backup is not restored", names[0], shared.force},
                     [&](const admin::change_options &options) {
                         return admin::restore_registry(content, shared.force, options);
                     });
}

static exit_code run_copy(const tool &shared, const given_names &names) {
    const std::string &url = names[0];
    return carry_out(shared, {"the registry is not copied", "", shared.force, false, url},
                     [&](const admin::change_options &options) {
                         return admin::copy_registry(url, shared.force, options);
                     });
}

static constexpr command_row COMMANDS[] = {
    {"backup", "Write the whole tree, as of one moment, into a file with mode 0600", "FILE",
     run_backup},
    {"restore", "Make the tree what a backup holds, all of it or nothing",
     "FILE --force --dry-run --if-revision --yes", run_restore},
    {"copy", "Copy the whole tree into another registry",
     "--to --force --dry-run --if-revision --yes", run_copy},
};

void add_backup_commands(CLI::App *app, tool *shared) {
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
