// All that keyviewctl writes. The result goes to stdout and nothing else does; whether it arrived
// is checked. Errors go to stderr. No byte of a name or value reaches a person unescaped.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "admin/error.h"
#include "ctl/exit_codes.h"
#include "ctl/view.h"

namespace keyview::ctl {

// Ends a command: thrown by it, reported by main.
struct tool_error {
    exit_code code;
    std::string what;   // what was to be done, or is wrong
    std::string where;  // the registry, the file; may be empty
    std::string why;
    std::string todo;
    std::vector<admin::problem> problems = {};
    uint64_t more_problems = 0;
};

// Writes to a descriptor; false, with errno, if not all of it arrives.
[[nodiscard]] bool write_all(int fd, std::string_view bytes);

// Thrown where the reader of stdout has gone; main then ends by SIGPIPE, as other programs do.
struct reader_left {};

// Writes to stdout; throws if not all of it arrives.
void write_result(std::string_view bytes);

// A JSON text to stdout; a terminal gets it without harmful characters.
void write_json(const std::string &text);

// The same as YAML.
void write_yaml(const nlohmann::ordered_json &value);

// Lines of text to stdout; on a terminal, one with harmful characters comes escaped.
void write_lines(const std::string &text);

// What is printed on stderr beside errors and warnings: nothing, remarks, or also each step that is
// taken. Where programs read it, remarks are left out and the others are JSON, a line each.
enum class remarks { none, usual, all };
void choose_remarks(remarks chosen, bool to_programs);

// A remark, such as what the command waits for; a step that is taken, with the time since the start;
// what must not be missed.
void print_remark(const std::string &text);
void show_moving_line(const std::string &text);  // in place of the one before; "" removes it
void print_step(const std::string &text);
void print_warning(const std::string &text);

// Shows a result: for people its value alone, for programs an object with kind and version and,
// under value_name, the value.
exit_code show_result(output_format format, const char *kind, const char *value_name,
                      const view &value);

// Shows the answer to a question: for people the last field alone, records in it as rows of a
// table, for programs all fields, the names that were given included, beside kind and version.
// Formats other than table and JSON show the last field, too.
exit_code show_answer(output_format format, const char *kind, const view_fields &fields);

// For a command that changes something, before it does: throws EXIT_USAGE if the format cannot show an
// answer of several fields.
void require_fields(output_format format, const char *kind);

// Throws what the administration failed with as the tool's error.
[[noreturn]] void fail(const admin::error &failed, const std::string &what,
                       const std::string &where);

// Ends a command that saved what is sound: throws what was left out, if anything was.
exit_code report_left_out(const std::string &registry, const admin::problem_list &left_out);

// Runs a call of the administration and returns its result. what: "the registry is not backed up".
template <typename work>
auto attempt(const std::string &what, const std::string &where, work &&run) {
    try {
        return run();
    } catch (const admin::error &failed) {
        fail(failed, what, where);
    }
}

// An error as JSON on one line, as -o json prints it.
std::string error_document(const tool_error &error);

void report_error(output_format format, const tool_error &error);

}  // namespace keyview::ctl
