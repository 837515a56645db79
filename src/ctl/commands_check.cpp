// check and lint: whether the registry is damaged, and what its readers misread.
#include "admin/care/inspection.h"
#include "admin/care/lint.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/text.h"

namespace keyview::ctl {

static view damage_view(const admin::problem &found) {
    return {view_fields{{"place", {found.place}}, {"reason", {found.reason}}}};
}

// The findings are the result; a check that could not be made is an error.
static exit_code run_check(const tool &shared, const given_names &) {
    admin::check_report report =
        attempt("the registry cannot be checked", shared.registry, admin::check_registry);
    view_list findings;
    for (const admin::problem &found : report.damage.kept())
        findings.push_back(damage_view(found));
    bool people = shared.format == output_format::table;
    if (people && findings.empty()) {
        write_result("no damage: " + std::to_string(report.keys) + " keys on " +
                     std::to_string(report.pages) + " pages\n");
        return EXIT_DONE;
    }
    if (people && report.damage.more() > 0) {
        findings.push_back(
            damage_view({"...", "and " + std::to_string(report.damage.more()) + " more"}));
    }
    bool sound = findings.empty();
    show_answer(shared.format, "check",
                {{"keys", count_view(report.keys)},
                 {"pages", count_view(report.pages)},
                 {"more_findings", count_view(report.damage.more())},
                 {"findings", {std::move(findings)}}});
    return sound ? EXIT_DONE : EXIT_CONTENT;
}

// ---- lint ---------------------------------------------------------------------------------------

// "" where a person has to decide.
static std::string remedy_of(const admin::finding &found) {
    if (found.remedy.empty()) return "";
    std::string out = "keyviewctl";
    for (const std::string &word : found.remedy)
        out += " " + shell_word(word);
    return out;
}

static view finding_view(const admin::finding &found) {
    return {view_fields{{"rule", {found.rule}},
                        {"severity", {found.severity}},
                        {"path", {found.path}},
                        {"readers_see", {found.readers_see}},
                        {"mend", optional_view(remedy_of(found))},
                        {"decide", optional_view(found.decision)}}};
}

static std::string findings_for_people(const admin::lint_result &result) {
    if (result.findings.empty())
        return "nothing to mend: " + std::to_string(result.keys) + " keys inspected\n";
    std::string out;
    for (const admin::finding &found : result.findings) {
        out += std::string(found.severity) + " " + found.rule + ": " + escaped(found.path) +
               "\n  readers see: " + escaped(found.readers_see) +
               (found.remedy.empty() ? "\n  decide:      " + escaped(found.decision)
                                     : "\n  mend:        " + escaped(remedy_of(found))) +
               "\n";
    }
    return out;
}

static exit_code run_lint(const tool &shared, const given_names &) {
    admin::lint_result result =
        attempt("the registry cannot be inspected", shared.registry, admin::lint_registry);
    exit_code code = result.findings.empty() ? EXIT_DONE : EXIT_CONTENT;
    if (shared.format == output_format::table) {
        write_result(findings_for_people(result));
        return code;
    }
    view_list findings;
    for (const admin::finding &found : result.findings)
        findings.push_back(finding_view(found));
    show_answer(shared.format, "lint",
                {{"keys", count_view(result.keys)}, {"findings", {std::move(findings)}}});
    return code;
}

static constexpr command_row COMMANDS[] = {
    {"check",
     "Inspect the whole registry for damage: exit code 0 if there is none, 8 with findings", "",
     run_check},
    {"lint", "Find what readers misread: exit code 0 if there is nothing, 8 with findings", "",
     run_lint},
};

void add_check_commands(CLI::App *app, tool *shared) {
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
