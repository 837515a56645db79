// errors: what the tool knows about itself.
#include <cstdlib>
#include <memory>

#include "ctl/command.h"
#include "ctl/output.h"

namespace keyview::ctl {

static view exit_view(const exit_row &row) {
    return {view_fields{{"code", number_view(row.code)},
                        {"word", {row.word}},
                        {"meaning", {row.meaning}},
                        {"do", {row.todo}}}};
}

static exit_code run_errors(const tool &shared, const std::string &code) {
    view_list rows;
    for (const exit_row *row = begin_exits(); row != end_exits(); ++row) {
        if (code.empty() || code == std::to_string(row->code) || code == row->word) {
            rows.push_back(exit_view(*row));
        }
    }
    if (rows.empty()) {
        throw tool_error{EXIT_NOT_FOUND, "there is no exit code " + code, "", "",
                         "\"keyviewctl errors\" shows all of them"};
    }
    show_result(shared.format, "errors", "errors", {std::move(rows)});
    return EXIT_DONE;
}

void add_help_commands(CLI::App *app, tool *shared) {
    auto code = std::make_shared<std::string>();
    add_plain_command(app, shared, "errors", "Tell what the exit codes mean, or one of them",
                      [shared, code] { return run_errors(*shared, *code); })
        ->add_option("CODE", *code, "The exit code, or its word");
}

}  // namespace keyview::ctl
