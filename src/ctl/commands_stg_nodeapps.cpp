// stg, stg-name, stg-enabled and nodeapps: what stands beside the databases, storage manager
// entries and the applications of the nodes.
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"

namespace keyview::ctl {

// "storage manager entry Stg1 of scope node1".
static std::string words_for(const given_names &names) {
    return "storage manager entry " + names[1] + " of scope " + names[0];
}

static exit_code run_stg(const tool &shared, const given_names &names) {
    session library(shared);
    prsr_stg_cfg *record = nullptr;
    int32_t rc = prsr_fetch_stg_config(library.status, library.ctx, names[0].c_str(),
                                       names[1].c_str(), &record);
    library.check(rc, words_for(names) + " cannot be shown");
    view shown = view_of(*record, shared.format);
    (void)prsr_release_stg_config(library.status, library.ctx, record);  // it has no other failure
    show_result(shared.format, "prsr_stg_cfg", "record", shown);
    return EXIT_DONE;
}

static exit_code run_stg_name(const tool &shared, const given_names &names) {
    session library(shared);
    std::string name;
    int32_t rc = read_name(
        [&](uint32_t size, char *buf) {
            return prsr_get_stg_name(library.status, library.ctx, names[0].c_str(),
                                     names[1].c_str(), size, buf);
        },
        &name);
    library.check(rc, "the registered name of " + words_for(names) + " cannot be told");
    show_answer(shared.format, "stg_name",
                {{"stg_scope", {names[0]}}, {"stg_name", {names[1]}}, {"name", {name}}});
    return EXIT_DONE;
}

static exit_code run_stg_enabled(const tool &shared, const given_names &names) {
    session library(shared);
    int32_t enabled = 0;
    int32_t rc = prsr_get_stg_enabled(library.status, library.ctx, names[0].c_str(),
                                      names[1].c_str(), &enabled);
    library.check(rc, "whether " + words_for(names) + " is enabled cannot be told");
    show_answer(
        shared.format, "stg_enabled",
        {{"stg_scope", {names[0]}}, {"stg_name", {names[1]}}, {"enabled", enabled_view(enabled)}});
    return exit_of_answer(enabled);
}

static exit_code run_nodeapps(const tool &shared, const given_names &names) {
    session library(shared);
    prsr_nodeapps_cfg *record = nullptr;
    int32_t rc = prsr_fetch_nodeapps_config(library.status, library.ctx, names[0].c_str(), &record);
    library.check(rc, "the applications of node " + names[0] + " cannot be shown");
    view shown = view_of(*record, shared.format);
    // It has no other failure.
    (void)prsr_release_nodeapps_config(library.status, library.ctx, record);
    show_result(shared.format, "prsr_nodeapps_cfg", "record", shown);
    return EXIT_DONE;
}

static constexpr name_command COMMANDS[] = {
    {"stg", "Show the whole record of a storage manager entry", "SCOPE NAME", run_stg},
    {"stg-name", "Tell the registered name of a storage manager entry", "SCOPE NAME", run_stg_name},
    {"stg-enabled", "Tell whether a storage manager entry is enabled: exit code 0, or disabled: 1",
     "SCOPE NAME", run_stg_enabled},
    {"nodeapps", "Show the whole record of a node's applications", "NODE", run_nodeapps},
};

void add_stg_nodeapps_commands(CLI::App *app, tool *shared) {
    add_name_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
