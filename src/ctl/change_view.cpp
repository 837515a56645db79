// See change_view.h.
#include "ctl/change_view.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "admin/change/keys.h"
#include "admin/document/base64.h"
#include "admin/document/meanings.h"
#include "admin/document/values.h"
#include "ctl/program_writer.h"
#include "ctl/suggest.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "ctl/undo_file.h"
#include "model/folding.h"
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

static view value_view(const std::optional<std::string_view> &value) {
    return value ? view{std::string(*value)} : view{};
}

view change_view(const admin::change_row &change) {
    return {view_fields{{"path", {std::string(change.path)}},
                        {"before", value_view(change.before)},
                        {"after", value_view(change.after)}}};
}

static void append_value(std::string_view value, std::string *out) {
    if (value.empty()) {
        *out += "(no value)";
    } else {
        append_escaped(admin::value_for_people(value), out);
    }
}

static void append_change(const admin::change_row &change, std::string *out) {
    *out += !change.before ? "+ " : !change.after ? "- " : "~ ";
    append_escaped(change.path, out);
    *out += " = ";
    if (change.before) append_value(*change.before, out);
    if (change.before && change.after) *out += " -> ";
    if (change.after) append_value(*change.after, out);
}

std::string change_for_people(const admin::change_row &change) {
    std::string out;
    append_change(change, &out);
    return out;
}

std::string line_of(const revision_jump &jump) {
    return lines_of(jump.kind,
                    {{"since", count_view(jump.since)}, {"revision", count_view(jump.revision)}});
}

std::string line_of(uint64_t since, uint64_t revision, const admin::key_change &change) {
    view_fields fields = {{"since", count_view(since)}, {"revision", count_view(revision)}};
    view shown = change_view(change);
    for (auto &field : std::get<view_fields>(shown.value))
        fields.push_back(std::move(field));
    return lines_of("change", fields);
}

std::string set_command(std::string_view path, std::string_view value, bool creates) {
    std::string out = creates ? "keyviewctl set --create" : "keyviewctl set";
    bool text = !value.empty() && value.back() == '\0' &&
                escaped(value.substr(0, value.size() - 1)) == value.substr(0, value.size() - 1);
    out += (text ? " --as text -- " : " --as base64 -- ") + shell_word(path) + " ";
    return out + shell_word(text ? value.substr(0, value.size() - 1) : admin::to_base64(value));
}

static std::string commands_of(const admin::change_result &changed) {
    std::string out;
    std::string_view removed;
    for (const admin::change_row &one : changed.changes) {
        bool below = !removed.empty() && path_within(one.path, removed);
        if (one.after) {
            out += set_command(one.path, *one.after, !one.before) + "\n";
        } else if (!below) {
            out += "keyviewctl rm --yes -- " + shell_word(one.path) + "\n";
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
    for (const admin::change_row &one : changed.changes)
        ++(!one.before ? counts.created : !one.after ? counts.removed : counts.replaced);
    return counts;
}

// Writes a text by and by; the list of a large change is longer than it.
class long_text {
  public:
    using writer = void (*)(std::string_view text);
    explicit long_text(writer write) : write_(write) {}

    void add(std::string_view text) {
        static constexpr size_t ENOUGH = size_t{64} << 10;
        text_ += text;
        if (text_.size() >= ENOUGH) end();
    }
    void end() {
        if (!text_.empty()) write_(text_);
        text_.clear();
    }

  private:
    writer write_;
    std::string text_;
};

static void list_for_people(const admin::change_result &changed, long_text *out) {
    if (changed.changes.empty())
        return out->add("nothing to change: all of it is stored already\n");
    std::string line;  // one for all: there may be many
    for (const admin::change_row &one : changed.changes) {
        line.clear();
        append_change(one, &line);
        out->add(line += '\n');
    }
    for (const std::string &lock : changed.locks) {
        line = "lock ";
        append_escaped(lock, &line);
        out->add(line += '\n');
    }
    change_counts counts = counts_of(changed);
    out->add(std::to_string(counts.created) + " keys created, " + std::to_string(counts.replaced) +
             " changed, " + std::to_string(counts.removed) + " removed\n");
}

// undo: the command that takes the changes back; "" if there is none.
static view_fields fields_of(const admin::change_result &changed, bool dry_run,
                             const std::string &undo) {
    view_list locks, changes;
    for (const std::string &lock : changed.locks)
        locks.push_back({lock});
    for (const admin::change_row &one : changed.changes)
        changes.push_back(change_view(one));
    change_counts counts = counts_of(changed);
    return {{"dry_run", number_view(dry_run ? 1 : 0)},
            {"revision", count_view(changed.revision)},
            {"created", number_view(counts.created)},
            {"replaced", number_view(counts.replaced)},
            {"removed", number_view(counts.removed)},
            {"undo", optional_view(undo)},
            {"locks", {std::move(locks)}},
            {"changes", {std::move(changes)}}};
}

static exit_code show_changes(const tool &shared, const admin::change_result &changed,
                              bool compares = false, const std::string &undo = "") {
    if (shared.dry_run && !compares) print_remark("a dry run: nothing was written");
    std::string line = undo.empty() ? "" : "undo: " + undo;
    switch (shared.format) {
        case output_format::table: {
            long_text out(write_result);
            list_for_people(changed, &out);
            if (!line.empty()) out.add(line + "\n");
            out.end();
            return EXIT_DONE;
        }
        case output_format::cmd:
            write_lines(commands_of(changed) + (line.empty() ? "" : "# " + line + "\n"));
            return EXIT_DONE;
        case output_format::tsv:
        case output_format::raw:
            if (!line.empty()) print_remark(line);
            break;
        default:
            break;
    }
    return show_answer(shared.format, "changes",
                       fields_of(changed, shared.dry_run || compares, undo));
}

exit_code change_words(const session &library, const std::string &what, const word_change &wanted,
                       const std::function<int32_t()> &operation) {
    require_fields(library.shared.format, "changes");
    const std::string &key = wanted.key, stored = wanted.word + '\0';
    admin::read_keys_result found = attempt(what, library.shared.registry, [&] {
        return wanted.all_below ? admin::read_keys(std::string(parent_path(key)), reach::all_below)
                                : admin::read_keys(key, reach::key_alone);
    });
    admin::change_result changed = {{}, admin::lock_list(key), found.revision};
    std::vector<admin::key_change> planned;
    for (const auto &[path, value] : found.keys)
        if (last_element(path) == last_element(key) && value != stored)
            planned.push_back({path, value, stored});
    library.shared.reporter->step("works under the lock " + changed.locks[0]);
    if (!library.shared.dry_run) {
        admin::set_recorder recorder;
        // Another one may have removed the key while this one waited for the lock.
        library.check(
            refined(operation(),
                    [&] { return key_exists(key) ? PRSR_ERR_REGISTRY : PRSR_ERR_NO_DATABASE; }),
            what);
        planned = recorder.changes();
    }
    changed.changes = planned;
    return show_changes(library.shared, changed);
}

// ---- Consent ------------------------------------------------------------------------------------

// How many records the values belong to that a change takes, or that its undo would: none, one, or
// more.
static size_t records_in(const admin::key_changes &changes,
                         std::optional<std::string_view> admin::change_row::*taken) {
    std::set<std::string> records;
    for (const admin::change_row &one : changes) {
        if (!(one.*taken)) continue;
        std::string record = admin::record_of(one.path);
        records.insert(record.empty() ? std::string(one.path) : record);
        if (records.size() > 1) break;
    }
    return records.size();
}

// The field of a document that lists the records of a key, such as "services"; null for what is no
// record's own key, and for the instances of a service.
static const char *list_field_of(std::string_view path) {
    const admin::key_location place = admin::locate_key(path);
    if (place.pattern.empty() || place.pattern.back() != '>') return nullptr;
    for (const list_row &section : SECTIONS) {
        if (section.record == place.record) return section.field;
        for (const list_row &list : section.record->lists)
            if (list.record == place.record) return list.field;
    }
    return nullptr;
}

// "removes 57 keys, replaces 0: databases Sales; instances Sales1, Sales2".
static std::string loss_in(const admin::change_result &changed) {
    constexpr size_t NAMED = 8;
    std::map<std::string, std::vector<std::string>> records;
    for (const admin::change_row &one : changed.changes) {
        const char *field = one.after ? nullptr : list_field_of(one.path);
        if (field != nullptr)
            records[field].emplace_back(one.before->substr(0, one.before->find('\0')));
    }
    const change_counts counts = counts_of(changed);
    std::string out = "removes " + std::to_string(counts.removed) + " keys, replaces " +
                      std::to_string(counts.replaced);
    for (const auto &[field, names] : records) {
        out += (&field == &records.begin()->first ? ": " : "; ") + field;
        for (size_t n = 0; n < names.size() && n < NAMED; ++n)
            out += (n == 0 ? " " : ", ") + escaped(names[n]);
        if (names.size() > NAMED) out += " and " + std::to_string(names.size() - NAMED) + " more";
    }
    return out;
}

static std::string where_of(const tool &shared, const change_command &command) {
    return shared.registry + (command.url.empty() ? "" : " to " + shown_url(command.url));
}

// The changes that a person agreed to; nothing where nobody was asked. Throws if the answer is no.
static std::optional<admin::key_changes> confirmed(const tool &shared,
                                                   const change_command &command,
                                                   const change_function &run) {
    if (shared.yes || shared.dry_run) return std::nullopt;
    admin::change_result planned;
    try {
        planned = run(options_of(shared, true));
    } catch (const admin::error &) {
        return std::nullopt;  // the change itself reports it
    }
    if (planned.changes.empty()) return std::nullopt;
    if (!is_terminal(STDIN_FILENO) || !is_terminal(STDERR_FILENO)) {
        if (records_in(planned.changes, &admin::change_row::before) < 2) return std::nullopt;
        throw tool_error{EXIT_USAGE, command.what, where_of(shared, command),
                         "it " + loss_in(planned) + "; there is no terminal to ask at",
                         "--dry-run shows each key; --yes does it without a question"};
    }
    shared.reporter->stop();
    long_text list([](std::string_view text) { std::cerr << text; });
    list_for_people(planned, &list);
    list.end();
    std::cerr << where_of(shared, command) << ": this " << loss_in(planned) << ".\nDo this? [y/N] "
              << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    shared.reporter->start();
    std::istringstream words(answer);
    std::string word, rest;
    words >> word >> rest;
    word = element_of(word);
    if (rest.empty() && (word == "y" || word == "yes")) return std::move(planned.changes);
    throw tool_error{EXIT_NO, "nothing was changed", "", "the answer was no",
                     "--yes answers with yes"};
}

// ---- Undo ---------------------------------------------------------------------------------------

namespace {

// Writes the file that undoes a change, and removes it if the change fails.
class undo_writer {
  public:
    undo_writer() = default;
    undo_writer(const undo_writer &) = delete;
    undo_writer &operator=(const undo_writer &) = delete;
    ~undo_writer() {
        if (!kept_) remove();
    }

    // Called again for a plan that is made anew: what the one before wrote is gone then.
    void write(const admin::change_result &made) {
        remove();
        if (records_in(made.changes, &admin::change_row::before) == 0) return;  // only new keys
        admin::change_result planned = {made.changes.without([](const admin::change_row &one) {
                                            return one.before == admin::DAMAGED_VALUE;
                                        }),
                                        made.locks, made.revision};
        bool removes = counts_of(planned).removed > 0;
        if (!removes && records_in(planned.changes, &admin::change_row::before) < 2) return;
        file_ = new_undo_file();
        replace_file(file_, document_of("changes", fields_of(planned, false, "")).dump(1) + "\n",
                     PRIVATE_FILE);
        asks_ = records_in(planned.changes, &admin::change_row::after) > 1;
    }

    // "" if nothing needs to be undone.
    std::string command(const std::string &url) {
        kept_ = true;
        if (file_.empty()) return "";
        return "keyviewctl --registry " + shell_word(absolute_url(url)) + " undo " +
               (asks_ ? "--yes " : "") + shell_word(file_);
    }

  private:
    void remove() {
        if (!file_.empty()) unlink(file_.c_str());
        file_.clear();
    }

    std::string file_;
    bool asks_ = false, kept_ = false;
};

}  // namespace

exit_code carry_out(const tool &shared, const change_command &command, const change_function &run) {
    require_fields(shared.format, "changes");
    std::optional<admin::key_changes> agreed;
    if (command.confirms) agreed = confirmed(shared, command, run);
    undo_writer undo;
    admin::change_options options = options_of(shared, shared.dry_run || command.compares);
    options.before_write = [&](const admin::change_result &planned) {
        if (agreed && !(*agreed == planned.changes)) {
            throw admin::error(KEYVIEW_FAILURE_CHANGED,
                               "the tree changed since the question; nothing was written");
        }
        undo.write(planned);
    };
    admin::change_result changed;
    try {
        changed = run(options);
    } catch (const admin::error &failed) {
        if (failed.kind == KEYVIEW_FAILURE_NOT_FOUND && !command.missing.empty()) {
            throw tool_error{EXIT_NOT_FOUND, command.what, shared.registry, failed.what(),
                             command.missing};
        }
        bool in_file = failed.kind == KEYVIEW_FAILURE_CONTENT && !command.file.empty();
        fail(failed, command.what, in_file ? file_label(command.file) : where_of(shared, command));
    }
    std::string way_back;
    if (!options.dry_run && !changed.changes.empty())
        way_back = undo.command(command.url.empty() ? shared.registry : command.url);
    try {
        (void)show_changes(shared, changed, command.compares, way_back);  // always EXIT_DONE
    } catch (tool_error &unseen) {
        if (options.dry_run || changed.changes.empty()) throw;
        unseen.todo = "the change was made" + (way_back.empty() ? "" : "; undo: " + way_back);
        throw;
    }
    return command.compares && !changed.changes.empty() ? EXIT_NO : EXIT_DONE;
}

}  // namespace keyview::ctl
