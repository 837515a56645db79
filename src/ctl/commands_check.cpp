// check: whether the registry is damaged, and where.
#include "admin/admin.h"
#include "ctl/command.h"
#include "ctl/output.h"

namespace keyview::ctl {

static view finding_view(const admin::problem &found) {
    return {view_fields{{"place", {found.place}}, {"reason", {found.reason}}}};
}

static std::string sound_text(const admin::check_report &report) {
    return "no damage: " + std::to_string(report.keys) + " keys on " +
           std::to_string(report.pages) + " pages\n";
}

// The findings are the result; a check that could not be made is an error.
static exit_code run_check(const tool &shared) {
    admin::check_report report = admin::check_registry();
    if (report.problems.empty()) {
        check_result(report, "the registry cannot be checked", shared.registry);
    }
    view_list findings;
    for (const admin::problem &found : report.problems)
        findings.push_back(finding_view(found));
    bool people = shared.format == output_format::table;
    if (people && findings.empty()) {
        write_result(sound_text(report));
        return EXIT_DONE;
    }
    if (people && report.more_problems > 0) {
        findings.push_back(
            finding_view({"...", "and " + std::to_string(report.more_problems) + " more"}));
    }
    bool sound = findings.empty();
    show_answer(shared.format, "check",
                {{"keys", count_view(report.keys)},
                 {"pages", count_view(report.pages)},
                 {"more_findings", count_view(report.more_problems)},
                 {"findings", {std::move(findings)}}});
    return sound ? EXIT_DONE : EXIT_CONTENT;
}

void add_check_command(CLI::App *app, tool *shared) {
    add_command(
        app, shared, "check",
        "Look for damage in the whole registry: exit code 0 if there is none, 8 with findings",
        [shared] { return run_check(*shared); });
}

}  // namespace keyview::ctl
