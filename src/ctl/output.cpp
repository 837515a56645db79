// The two streams, and the choice of a writer.
#include "ctl/output.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>
#include <nlohmann/json.hpp>

#include "ctl/layout.h"
#include "ctl/people_writer.h"
#include "ctl/program_writer.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "ctl/yaml_text.h"
#include "model/text.h"

namespace keyview::ctl {

using nlohmann::ordered_json;

// ---- Streams ------------------------------------------------------------------------------------

bool write_all(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        ssize_t done = write(fd, bytes.data(), bytes.size());
        if (done < 0 && errno == EINTR) continue;
        if (done < 0) return false;
        bytes.remove_prefix(static_cast<size_t>(done));
    }
    return true;
}

static void remove_moving_line(bool for_good);

void write_result(std::string_view bytes) {
    remove_moving_line(true);
    if (write_all(STDOUT_FILENO, bytes)) return;
    if (errno == EPIPE) throw reader_left();
    throw tool_error{EXIT_INTERNAL, "the result could not be written", "standard output",
                     strerror(errno), "direct the output to where there is room for it"};
}

void write_json(const std::string &text) {
    write_result(is_terminal(STDOUT_FILENO) ? json_made_plain(text) : text);
}

void write_yaml(const ordered_json &value) {
    std::string text = yaml_of(value, false);
    bool unsafe = is_terminal(STDOUT_FILENO) && json_made_plain(text) != text;
    write_result(unsafe ? yaml_of(value, true) : text);
}

void write_lines(const std::string &text) {
    if (!is_terminal(STDOUT_FILENO)) return write_result(text);
    std::string safe;
    for (size_t at = 0; at < text.size();) {
        size_t end = std::min(text.find('\n', at), text.size());
        std::string line = text.substr(at, end - at);
        safe += (json_made_plain(line) == line ? line : escaped(line)) + "\n";
        at = end + 1;
    }
    write_result(safe);
}

// ---- Results ------------------------------------------------------------------------------------

[[noreturn]] static void refuse_raw(const char *kind) {
    throw tool_error{EXIT_USAGE, "-o raw cannot show this", "",
                     std::string("the result, of kind ") + kind + ", has several fields",
                     "use -o json or -o tsv"};
}

[[noreturn]] static void refuse_commands() {
    throw tool_error{EXIT_USAGE, "-o cmd cannot show this", "",
                     "only keys and their changes can be shown as commands",
                     "use -o json, or \"tree\", \"get\" or \"diff\" with -o cmd"};
}

void require_fields(output_format format, const char *kind) {
    if (format == output_format::raw) refuse_raw(kind);
    if (format == output_format::cmd && kind != std::string_view("changes")) refuse_commands();
}

static std::string bare_text(const char *kind, const view &shown) {
    std::string text;
    if (!bare_text_of(shown, &text)) refuse_raw(kind);
    return text;
}

static void remark_on_empty(const char *kind) {
    static constexpr struct {
        std::string_view kind;
        const char *text;
    } TEXTS[] = {
        {"db_list", "there are no databases"},
        {"cluster_status", "there are no databases"},
        {"keys", "there are no keys below it"},
        {"roster", "the service has no instances"},
        {"locks", "no lock of the key tree is held or waited for"},
        {"contexts", "no settings file has a context"},
    };
    const auto *found = std::find_if(std::begin(TEXTS), std::end(TEXTS),
                                     [&](const auto &row) { return row.kind == kind; });
    print_remark(found == std::end(TEXTS) ? "the list is empty" : found->text);
}

exit_code show_answer(output_format format, const char *kind, const view_fields &fields) {
    const view &last = fields.back().second;
    switch (format) {
        case output_format::table:
            write_result(text_for_people(last));
            if (list_in(last) != nullptr && list_in(last)->empty()) remark_on_empty(kind);
            break;
        case output_format::json:
            write_json(document_of(kind, fields).dump(2) + "\n");
            break;
        case output_format::yaml:
            write_yaml(document_of(kind, fields));
            break;
        case output_format::jsonl:
            write_json(lines_of(kind, fields));
            break;
        case output_format::tsv:
            write_result(cells_of(last));
            break;
        case output_format::raw:
            write_lines(bare_text(kind, last));
            break;
        case output_format::cmd:
        case output_format::html:  // these three do not come here
        case output_format::svg:
        case output_format::dot:
            refuse_commands();
    }
    return EXIT_DONE;
}

exit_code show_result(output_format format, const char *kind, const char *value_name,
                      const view &value) {
    return show_answer(format, kind, {{value_name, value}});
}

// ---- Remarks ------------------------------------------------------------------------------------

static remarks wanted_remarks = remarks::usual;
static bool programs_read_remarks = false;

void choose_remarks(remarks chosen, bool to_programs) {
    wanted_remarks = chosen;
    programs_read_remarks = to_programs;
}

// The line that moves at the end of a terminal. Once there is a result, it stays away.
static struct {
    std::mutex mutex;
    bool shown = false, over = false;
} moving;

static void remove_moving_line(bool for_good) {
    std::lock_guard guard(moving.mutex);
    if (moving.shown) (void)write_all(STDERR_FILENO, "\r\x1b[K");
    moving.shown = false;
    moving.over = moving.over || for_good;
}

void show_moving_line(const std::string &text) {
    if (text.empty()) return remove_moving_line(false);
    std::string line = shortened("keyviewctl: " + escaped(text), width_of(STDERR_FILENO) - 1, true);
    std::lock_guard guard(moving.mutex);
    if (moving.over) return;
    (void)write_all(STDERR_FILENO, "\r" + line + "\x1b[K");
    moving.shown = true;
}

// A failure is ignored: it is not the result.
static void print_line(const char *kind, const std::string &text) {
    std::string line = "keyviewctl: " + escaped(text) + "\n";
    if (programs_read_remarks)
        line =
            ordered_json({{"kind", kind}, {"version", 1}, {"text", escaped(text)}}).dump() + "\n";
    remove_moving_line(false);
    (void)write_all(STDERR_FILENO, line);
}

void print_remark(const std::string &text) {
    bool wanted =
        programs_read_remarks ? wanted_remarks == remarks::all : wanted_remarks != remarks::none;
    if (wanted) print_line("remark", text);
}

void print_step(const std::string &text) {
    static const auto BEGUN = std::chrono::steady_clock::now();
    if (wanted_remarks != remarks::all) return;
    std::chrono::duration<double> since = std::chrono::steady_clock::now() - BEGUN;
    char time[32];
    (void)snprintf(time, sizeof time, "%.3f s: ", since.count());  // it fits
    print_line("remark", time + text);
}

void print_warning(const std::string &text) {
    print_line("warning", text);
}

// ---- Errors -------------------------------------------------------------------------------------

void fail(const admin::error &failed, const std::string &what, const std::string &where) {
    const host_failure &failure = host_failure_of(failed.kind);
    throw tool_error{failure.code,        what, where, failed.what(), failure.todo, failed.problems,
                     failed.more_problems};
}

exit_code report_left_out(const std::string &registry, const admin::problem_list &left_out) {
    if (left_out.empty()) return EXIT_DONE;
    throw tool_error{EXIT_CONTENT, "what is sound was written; this was left out", registry,
                     "",           "\"keyviewctl lint\" lists the remedies",       left_out.kept()};
}

static std::string error_text(const tool_error &error) {
    std::string out = painted(STDERR_FILENO, tone::bad, "keyviewctl:") + " " + escaped(error.what);
    if (!error.where.empty()) out += "\n  where: " + escaped(error.where);
    if (!error.why.empty()) out += "\n  why:   " + escaped(error.why);
    for (const admin::problem &wrong : error.problems) {
        out += "\n    " + escaped(wrong.place.empty() ? "the whole" : wrong.place) + ": " +
               escaped(wrong.reason);
    }
    if (error.more_problems > 0)
        out += "\n    and " + std::to_string(error.more_problems) + " more";
    if (!error.todo.empty()) out += "\n  do:    " + escaped(error.todo);
    return out + "\n";
}

static std::string utf8_text(const std::string &text) {
    return valid_utf8(text) ? text : escaped(text);
}

static ordered_json error_json(const tool_error &error) {
    ordered_json problems = ordered_json::array();
    for (const admin::problem &wrong : error.problems) {
        problems.push_back(
            {{"place", utf8_text(wrong.place)}, {"reason", utf8_text(wrong.reason)}});
    }
    return {{"kind", "error"},
            {"version", 1},
            {"exit_code", error.code},
            {"error", exit_word(error.code)},
            {"what", utf8_text(error.what)},
            {"where", utf8_text(error.where)},
            {"why", utf8_text(error.why)},
            {"do", utf8_text(error.todo)},
            {"problems", problems},
            {"more_problems", error.more_problems}};
}

std::string error_document(const tool_error &error) {
    return error_json(error).dump() + "\n";
}

void report_error(output_format format, const tool_error &error) {
    bool programs = for_programs(format);
    std::string text = programs ? error_document(error) : error_text(error);
    if (programs && is_terminal(STDERR_FILENO)) text = json_made_plain(text);
    remove_moving_line(true);
    (void)write_all(STDERR_FILENO, text);  // a failure here cannot be reported
}

}  // namespace keyview::ctl
