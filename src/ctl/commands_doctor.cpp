// doctor and recover: what is wrong with a registry or with how it is reached, and the end of a
// change set that stopped half-way.
#include "admin/care/inspection.h"
#include "ctl/command.h"
#include "ctl/output.h"

namespace keyview::ctl {

static exit_code run_doctor(const tool &shared, const given_names &) {
    static constexpr const char *STATES[] = {"good", "doubtful", "bad"};
    std::vector<admin::symptom> symptoms =
        attempt("the registry cannot be inspected", shared.registry, admin::diagnose_registry);
    view_list findings;
    bool bad = false;
    for (const admin::symptom &found : symptoms) {
        bad = bad || found.health == KEYVIEW_HEALTH_BAD;
        findings.push_back({view_fields{{"subject", {found.subject}},
                                        {"state", text_view(STATES[found.health])},
                                        {"text", {found.text}}}});
    }
    show_answer(shared.format, "doctor", {{"findings", {std::move(findings)}}});
    return bad ? EXIT_REGISTRY : EXIT_DONE;
}

static exit_code run_recover(const tool &shared, const given_names &) {
    if (shared.resume == shared.undo) {
        throw tool_error{EXIT_USAGE, "choose what to do with the change set", "", "",
                         "give --resume to complete it, or --undo to take it back"};
    }
    attempt("no change set is completed or taken back", shared.registry,
            [&] { admin::registry::open().recover(shared.undo); });
    return show_result(shared.format, "recover", "done",
                       {std::string(shared.resume ? "finished" : "taken back")});
}

void add_doctor_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"doctor",
         "Inspect the registry, how it is reached and its locks: exit code 4 if something is bad",
         "", run_doctor},
        {"recover", "Complete or take back a large change set that stopped half-way in a cluster",
         "--resume --undo", run_recover},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
