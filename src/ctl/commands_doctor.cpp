// doctor and recover: what is wrong with a registry or the way to it, and what to do about a change
// set that stopped half-way.
#include <memory>

#include "admin/admin.h"
#include "ctl/command.h"
#include "ctl/output.h"

namespace keyview::ctl {

static view state_view(admin::symptom::state health) {
    static constexpr const char *WORDS[] = {"good", "doubtful", "bad"};
    return text_view(WORDS[static_cast<size_t>(health)]);
}

static exit_code run_doctor(const tool &shared) {
    admin::doctor_report report = admin::examine_registry();
    check_result(report, "the registry cannot be examined", shared.registry);
    view_list findings;
    bool bad = false;
    for (const admin::symptom &found : report.symptoms) {
        bad = bad || found.health == admin::symptom::state::bad;
        findings.push_back({view_fields{{"subject", {found.subject}},
                                        {"state", state_view(found.health)},
                                        {"text", {found.text}}}});
    }
    show_answer(shared.format, "doctor", {{"findings", {std::move(findings)}}});
    return bad ? EXIT_REGISTRY : EXIT_DONE;
}

static exit_code run_recover(const tool &shared, bool resume, bool undo) {
    if (resume == undo) {
        throw tool_error{EXIT_USAGE, "say what to do with the change set", "", "",
                         "give --resume to finish it, or --undo to take it back"};
    }
    admin::result ended =
        admin::recover_registry(resume ? admin::recovery::resume : admin::recovery::undo);
    check_result(ended, "no change set is ended", shared.registry);
    show_result(shared.format, "recover", "done",
                {std::string(resume ? "finished" : "taken back")});
    return EXIT_DONE;
}

void add_care_commands(CLI::App *app, tool *shared) {
    add_command(
        app, shared, "doctor",
        "Look at the registry, the way to it and its locks: exit code 4 if something is bad",
        [shared] { return run_doctor(*shared); });
    auto resume = std::make_shared<bool>(false);
    auto undo = std::make_shared<bool>(false);
    CLI::App *recover = add_command(app, shared, "recover",
                                    "End a large change set that stopped half-way in a cluster",
                                    [=] { return run_recover(*shared, *resume, *undo); });
    add_flag(recover, "--resume", resume.get(), "Finish it");
    add_flag(recover, "--undo", undo.get(), "Take it back");
}

}  // namespace keyview::ctl
