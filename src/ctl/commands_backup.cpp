// backup, restore and copy: the whole tree out of a registry and into one.
#include <memory>

#include "admin/care/backup.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"

namespace keyview::ctl {

static exit_code run_backup(const tool &shared, const std::string &file) {
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

static exit_code run_restore(const tool &shared, const std::string &file, bool force) {
    std::string content = read_file(file);
    if (force) {
        confirm(shared,
                [&] { return admin::restore_registry(content, force, options_of(shared, true)); });
    }
    show_changes(shared, attempt_with_file(shared, "the backup is not restored", file, [&] {
                     return admin::restore_registry(content, force,
                                                    options_of(shared, shared.dry_run));
                 }));
    return EXIT_DONE;
}

static exit_code run_copy(const tool &shared, const std::string &url, bool force) {
    show_changes(shared, attempt("the registry is not copied", shared.registry + " to " + url, [&] {
                     return admin::copy_registry(url, force, options_of(shared, shared.dry_run));
                 }));
    return EXIT_DONE;
}

// ---- The commands -------------------------------------------------------------------------------

void add_backup_commands(CLI::App *app, tool *shared) {
    auto file = std::make_shared<std::string>();
    auto force = std::make_shared<bool>(false);
    CLI::App *backup =
        add_command(app, shared, "backup", "Write the whole tree, as of one moment, into a file",
                    [=] { return run_backup(*shared, *file); });
    add_text(backup, "FILE", file.get(), "Where to write it, with mode 0600; - for standard output",
             need::required);

    CLI::App *restore = add_command(app, shared, "restore",
                                    "Make the tree what a backup holds, all of it or nothing",
                                    [=] { return run_restore(*shared, *file, *force); });
    add_text(restore, "FILE", file.get(), "The backup; - for standard input", need::required);

    CLI::App *copy = add_command(app, shared, "copy", "Copy the whole tree into another registry",
                                 [=] { return run_copy(*shared, *file, *force); });
    add_text(copy, "--to", file.get(), "URL of the other registry", need::required);
    for (CLI::App *command : {restore, copy}) {
        add_flag(command, "--force", force.get(),
                 "Also if it holds keys: those that are not in the copy are removed");
        add_write_options(command, shared);
    }
}

}  // namespace keyview::ctl
