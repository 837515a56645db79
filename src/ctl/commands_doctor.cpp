// doctor and recover: what is wrong with a registry or with how it is reached, and the end of a
// change set that stopped half-way.
#include <memory>

#include "admin/care/inspection.h"
#include "ctl/command.h"
#include "ctl/output.h"

namespace keyview::ctl {

static view state_view(int32_t health) {
    static constexpr const char *WORDS[] = {"good", "doubtful", "bad"};
    return text_view(WORDS[health]);
}

static exit_code run_doctor(const tool &shared) {
    std::vector<admin::symptom> symptoms =
        attempt("the registry cannot be inspected", shared.registry, admin::diagnose_registry);
    view_list findings;
    bool bad = false;
    for (const admin::symptom &found : symptoms) {
        bad = bad || found.health == KEYVIEW_HEALTH_BAD;
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
                         "give --resume to complete it, or --undo to take it back"};
    }
    attempt("no change set is completed or taken back", shared.registry,
            [&] { admin::registry::open().recover(undo); });
    return show_result(shared.format, "recover", "done",
                       {std::string(resume ? "finished" : "taken back")});
}

void add_doctor_commands(CLI::App *app, tool *shared) {
    add_command(
        app, shared, "doctor",
        "Inspect the registry, how it is reached and its locks: exit code 4 if something is bad",
        [shared] { return run_doctor(*shared); });
    auto resume = std::make_shared<bool>(false);
    auto undo = std::make_shared<bool>(false);
    CLI::App *recover =
        add_command(app, shared, "recover",
                    "Complete or take back a large change set that stopped half-way in a cluster",
                    [=] { return run_recover(*shared, *resume, *undo); });
    add_flag(recover, "--resume", resume.get(), "Complete it");
    add_flag(recover, "--undo", undo.get(), "Take it back");
}

}  // namespace keyview::ctl
