// check and lint: whether the registry is damaged, and what its readers misread.
#include <CLI/CLI.hpp>

#include "admin/care/inspection.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/overview.h"
#include "ctl/text.h"

namespace keyview::ctl {

// The findings are the result; a check that could not be made is an error.
static exit_code run_check(const tool &shared, const given_names &) {
    static constexpr size_t MOST_SHOWN = admin::problem_list::LIMIT;
    admin::inspection_report report =
        attempt("the registry cannot be checked", shared.registry, admin::check_registry);
    bool people = shared.format == output_format::table;
    if (people && report.findings.empty()) {
        write_result("no damage: " + std::to_string(report.keys) + " keys on " +
                     std::to_string(report.pages) + " pages\n");
        return EXIT_DONE;
    }
    view_list rows;
    for (const admin::finding &found : report.findings) {
        if (rows.size() == MOST_SHOWN) break;
        view_fields row = {{"place", {found.path}}, {"reason", {found.reason}}};
        if (!people) row.insert(row.begin(), {"rule", {found.row->name}});
        rows.push_back({std::move(row)});
    }
    size_t more = report.findings.size() - rows.size();
    if (people && more > 0) {
        rows.push_back({view_fields{{"place", {"..."}},
                                    {"reason", {"and " + std::to_string(more) + " more"}}}});
    }
    bool sound = rows.empty();
    show_answer(shared.format, "check",
                {{"keys", count_view(report.keys)},
                 {"pages", count_view(report.pages)},
                 {"more_findings", count_view(more)},
                 {"findings", {std::move(rows)}}});
    return sound ? EXIT_DONE : EXIT_CONTENT;
}

// ---- lint ---------------------------------------------------------------------------------------

static std::string findings_for_people(const admin::inspection_report &report) {
    if (report.findings.empty())
        return "nothing to mend: " + std::to_string(report.keys) + " keys inspected\n";
    std::string out;
    for (const admin::finding &found : report.findings) {
        out += std::string(found.row->severity) + " " + found.row->name + ": " +
               escaped(found.path) + "\n  " + escaped(found.reason) +
               "\n  readers see: " + escaped(found.readers_see) +
               (found.remedy.empty() ? "\n  decide:      " + escaped(found.decision)
                                     : "\n  mend:        " + remedy_of(found)) +
               "\n";
    }
    return out;
}

static exit_code run_lint(const tool &shared, const given_names &) {
    admin::inspection_report report =
        attempt("the registry cannot be inspected", shared.registry, admin::lint_registry);
    exit_code code = report.findings.empty() ? EXIT_DONE : EXIT_CONTENT;
    if (shared.format == output_format::table) {
        write_result(findings_for_people(report));
        return code;
    }
    show_answer(shared.format, "lint", lint_view(report));
    return code;
}

// ---- The table of findings ----------------------------------------------------------------------

static const char *yes_or_no(bool yes) {
    return yes ? "yes" : "no";
}

exit_code show_findings(const tool &shared) {
    view_list rows;
    for (const admin::finding_row &row : admin::finding_rows()) {
        rows.push_back({view_fields{{"rule", {row.name}},
                                    {"severity", {row.severity}},
                                    {"meaning", {row.meaning}},
                                    {"remedy", {row.remedy}},
                                    {"check", {yes_or_no(row.by_check)}},
                                    {"lint", {yes_or_no(row.by_lint)}},
                                    {"export", {yes_or_no(row.by_export)}}}});
    }
    return show_result(shared.format, "findings", "findings", {std::move(rows)});
}

void add_check_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"check",
         "Inspect the whole registry for damage: exit code 0 if there is none, 8 with findings", "",
         run_check},
        {"lint", "Find what readers misread: exit code 0 if there is nothing, 8 with findings", "",
         run_lint},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
