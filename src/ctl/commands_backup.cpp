// backup, restore, copy and lint: keeping the tree, and keeping it readable.
#include <memory>

#include "admin/admin.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace keyview::ctl {

static exit_code run_backup(const tool &shared, const std::string &file) {
    admin::backup_result saved = admin::backup_registry();
    check_result(saved, "the registry is not backed up", shared.registry);
    if (file == "-") {
        write_result(saved.content);
        return EXIT_DONE;
    }
    replace_file(file, saved.content, PRIVATE_FILE);
    show_answer(shared.format, "backup",
                {{"file", {file}},
                 {"revision", count_view(saved.revision)},
                 {"keys", count_view(saved.keys)}});
    return EXIT_DONE;
}

static exit_code run_restore(const tool &shared, const std::string &file, bool force) {
    std::string content = read_file(file);
    if (force) {
        confirm(shared,
                [&] { return admin::restore_registry(content, force, options_of(shared, true)); });
    }
    admin::change_result changed =
        admin::restore_registry(content, force, options_of(shared, shared.dry_run));
    check_result(changed, "the backup is not restored", place_of(shared, changed, file));
    show_changes(shared, changed);
    return EXIT_DONE;
}

static exit_code run_copy(const tool &shared, const std::string &url, bool force) {
    admin::change_result changed =
        admin::copy_registry(url, force, options_of(shared, shared.dry_run));
    check_result(changed, "the registry is not copied", shared.registry + " to " + url);
    show_changes(shared, changed);
    return EXIT_DONE;
}

// ---- lint ---------------------------------------------------------------------------------------

static std::string mending_command(const admin::finding &found) {
    std::string out = "keyviewctl";
    for (const std::string &word : found.mend)
        out += " " + shell_word(word);
    return out;
}

static view finding_view(const admin::finding &found) {
    return {view_fields{{"rule", {found.rule}},
                        {"severity", {found.severity}},
                        {"path", {found.path}},
                        {"readers_see", {found.readers_see}},
                        {"mend", {mending_command(found)}}}};
}

static std::string findings_for_people(const admin::lint_result &looked) {
    if (looked.findings.empty())
        return "nothing to mend: " + std::to_string(looked.keys) + " keys looked at\n";
    std::string out;
    for (const admin::finding &found : looked.findings) {
        out += std::string(found.severity) + " " + found.rule + ": " + escaped(found.path) +
               "\n  readers see: " + escaped(found.readers_see) +
               "\n  mend:        " + escaped(mending_command(found)) + "\n";
    }
    return out;
}

static exit_code run_lint(const tool &shared) {
    admin::lint_result looked = admin::lint_registry();
    check_result(looked, "the registry cannot be looked at", shared.registry);
    exit_code code = looked.findings.empty() ? EXIT_DONE : EXIT_CONTENT;
    if (shared.format == output_format::table) {
        write_result(findings_for_people(looked));
        return code;
    }
    view_list findings;
    for (const admin::finding &found : looked.findings)
        findings.push_back(finding_view(found));
    show_answer(shared.format, "lint",
                {{"keys", count_view(looked.keys)}, {"findings", {std::move(findings)}}});
    return code;
}

// ---- The commands -------------------------------------------------------------------------------

void add_keep_commands(CLI::App *app, tool *shared) {
    auto file = std::make_shared<std::string>();
    auto force = std::make_shared<bool>(false);
    CLI::App *backup =
        add_command(app, shared, "backup", "Write the whole tree, as of one moment, into a file",
                    [=] { return run_backup(*shared, *file); });
    add_text(backup, "FILE", file.get(), "Where to write it, with mode 0600; - for standard output",
             need::required);

    CLI::App *restore = add_command(app, shared, "restore",
                                    "Bring the tree to what a backup holds, all of it or nothing",
                                    [=] { return run_restore(*shared, *file, *force); });
    add_text(restore, "FILE", file.get(), "The backup; - for standard input", need::required);

    CLI::App *copy = add_command(app, shared, "copy", "Copy the whole tree into another registry",
                                 [=] { return run_copy(*shared, *file, *force); });
    add_text(copy, "--to", file.get(), "URL of the other registry", need::required);
    for (CLI::App *command : {restore, copy}) {
        add_flag(command, "--force", force.get(),
                 "Also if it holds keys: what is not in the copy goes");
        add_write_options(command, shared);
    }

    add_command(app, shared, "lint",
                "Look for what readers misread: exit code 0 if there is nothing, 8 with findings",
                [shared] { return run_lint(*shared); });
}

}  // namespace keyview::ctl
