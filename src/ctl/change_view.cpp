// See change_view.h.
#include "ctl/change_view.h"

#include <unistd.h>

#include <iostream>

#include "admin/change/keys.h"
#include "admin/document/base64.h"
#include "admin/document/values.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "model/locks.h"

namespace keyview::ctl {

static admin::change_options options_of(const tool &shared, bool dry_run) {
    admin::change_options options;
    options.dry_run = dry_run;
    options.prune = shared.prune;
    options.if_revision = shared.if_revision;
    options.step = [&shared](const std::string &text) { shared.reporter->step(text); };
    return options;
}

static view value_view(const std::optional<std::string> &value) {
    return value ? view{*value} : view{};
}

view change_view(const admin::key_change &change) {
    return {view_fields{{"path", {change.path}},
                        {"before", value_view(change.before)},
                        {"after", value_view(change.after)}}};
}

static std::string shown(const std::string &value) {
    return value.empty() ? "(no value)" : escaped(admin::value_for_people(value));
}

std::string change_for_people(const admin::key_change &change) {
    std::string path = escaped(change.path);
    if (!change.before) return "+ " + path + " = " + shown(*change.after);
    if (!change.after) return "- " + path + " = " + shown(*change.before);
    return "~ " + path + " = " + shown(*change.before) + " -> " + shown(*change.after);
}

std::string set_command(const std::string &path, const std::string &value) {
    std::string out = "keyviewctl set " + shell_word(path);
    bool text = !value.empty() && value.back() == '\0' &&
                escaped(std::string_view(value).substr(0, value.size() - 1)) ==
                    value.substr(0, value.size() - 1);
    if (!text) return out + " --as base64 " + shell_word(admin::to_base64(value));
    return out + " --as text -- " + shell_word(value.substr(0, value.size() - 1));
}

static std::string commands_of(const admin::change_result &changed) {
    std::string out;
    std::string removed;
    for (const admin::key_change &one : changed.changes) {
        bool below = !removed.empty() && one.path.rfind(removed + ".", 0) == 0;
        if (one.after) {
            out += set_command(one.path, *one.after) + "\n";
        } else if (!below) {
            out += "keyviewctl rm " + shell_word(one.path) + "\n";
            removed = one.path;
        }
    }
    return out;
}

namespace {
struct change_counts {
    int64_t created = 0, replaced = 0, removed = 0;
};
}  // namespace

static change_counts counts_of(const admin::change_result &changed) {
    change_counts counts;
    for (const admin::key_change &one : changed.changes)
        ++(!one.before ? counts.created : !one.after ? counts.removed : counts.replaced);
    return counts;
}

static std::string list_for_people(const admin::change_result &changed) {
    if (changed.changes.empty()) return "nothing to change: all of it is stored already\n";
    std::string out;
    for (const admin::key_change &one : changed.changes)
        out += change_for_people(one) + "\n";
    for (const std::string &lock : changed.locks)
        out += "lock " + escaped(lock) + "\n";
    change_counts counts = counts_of(changed);
    return out + std::to_string(counts.created) + " keys created, " +
           std::to_string(counts.replaced) + " changed, " + std::to_string(counts.removed) +
           " removed\n";
}

static exit_code show_changes(const tool &shared, const admin::change_result &changed,
                              bool compares = false) {
    if (shared.dry_run && !compares) print_remark("a dry run: nothing was written");
    if (shared.format == output_format::table) write_result(list_for_people(changed));
    if (shared.format == output_format::cmd) write_lines(commands_of(changed));
    if (shared.format == output_format::table || shared.format == output_format::cmd)
        return EXIT_DONE;
    view_list locks, changes;
    for (const std::string &lock : changed.locks)
        locks.push_back({lock});
    for (const admin::key_change &one : changed.changes)
        changes.push_back(change_view(one));
    change_counts counts = counts_of(changed);
    return show_answer(shared.format, "changes",
                       {{"dry_run", number_view(shared.dry_run || compares ? 1 : 0)},
                        {"revision", count_view(changed.revision)},
                        {"created", number_view(counts.created)},
                        {"replaced", number_view(counts.replaced)},
                        {"removed", number_view(counts.removed)},
                        {"locks", {std::move(locks)}},
                        {"changes", {std::move(changes)}}});
}

exit_code change_words(const session &library, const std::string &what, const word_change &wanted,
                       const std::function<int32_t()> &operation) {
    const std::string &key = wanted.key, stored = wanted.word + '\0';
    admin::read_keys_result found = attempt(what, library.shared.registry, [&] {
        return wanted.all_below ? admin::read_keys(std::string(parent_path(key)), reach::all_below)
                                : admin::read_keys(key, reach::key_alone);
    });
    admin::change_result changed = {{}, {lock_of(key)}, found.revision};
    for (const auto &[path, value] : found.keys)
        if (last_element(path) == last_element(key) && value != stored)
            changed.changes.push_back({path, value, stored});
    library.shared.reporter->step("works under the lock " + changed.locks.front());
    if (!library.shared.dry_run) {
        admin::set_recorder recorder;
        library.check(operation(), what);
        changed.changes = recorder.changes();
    }
    return show_changes(library.shared, changed);
}

// Asks a person at a terminal; throws if the answer is no.
static void confirm(const tool &shared, const change_function &run) {
    if (shared.yes || shared.dry_run || !is_terminal(STDIN_FILENO) || !is_terminal(STDOUT_FILENO))
        return;
    admin::change_result planned;
    try {
        planned = run(options_of(shared, true));
    } catch (const admin::error &) {
        return;  // the change itself reports it
    }
    if (planned.changes.empty()) return;
    shared.reporter->stop();
    std::cerr << list_for_people(planned) << "Do this? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    shared.reporter->start();
    if (answer == "y" || answer == "yes") return;
    throw tool_error{EXIT_NO, "nothing was changed", "", "the answer was no",
                     "--yes answers with yes"};
}

exit_code carry_out(const tool &shared, const change_command &command, const change_function &run) {
    if (command.confirms) confirm(shared, run);
    admin::change_result changed;
    try {
        changed = run(options_of(shared, shared.dry_run || command.compares));
    } catch (const admin::error &failed) {
        bool in_file = failed.kind == KEYVIEW_FAILURE_CONTENT && !command.file.empty();
        const std::string &where = command.where.empty() ? shared.registry : command.where;
        fail(failed, command.what, in_file ? file_label(command.file) : where);
    }
    (void)show_changes(shared, changed, command.compares);  // always EXIT_DONE
    return command.compares && !changed.changes.empty() ? EXIT_NO : EXIT_DONE;
}

}  // namespace keyview::ctl
