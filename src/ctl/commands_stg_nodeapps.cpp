// stg, stg-name, stg-enabled and nodeapps: storage manager entries and the applications of
// nodes.
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"

namespace keyview::ctl {

// "storage manager entry Stg1 of scope node1".
static std::string stg_subject(const given_names &names) {
    return "storage manager entry " + names[1] + " of scope " + names[0];
}

static exit_code run_stg(const session &library, const given_names &names) {
    const auto found = library.read(stg_subject(names) + " cannot be shown",
                                    [&] { return library->fetch_stg_config(names[0], names[1]); });
    output_format format = library.shared.format;
    return show_result(format, "prsr_stg_cfg", "record", view_of(*found, format));
}

static exit_code run_stg_name(const session &library, const given_names &names) {
    const auto name = library->get_stg_name(names[0], names[1]);
    library.check(name.code(), "the registered name of " + stg_subject(names) + " cannot be read");
    return show_answer(library.shared.format, "stg_name",
                       {{"stg_scope", {names[0]}}, {"stg_name", {names[1]}}, {"name", {*name}}});
}

static exit_code run_stg_enabled(const session &library, const given_names &names) {
    const auto enabled = library->get_stg_enabled(names[0], names[1]);
    library.check(enabled.code(), "whether " + stg_subject(names) + " is enabled cannot be read");
    show_answer(
        library.shared.format, "stg_enabled",
        {{"stg_scope", {names[0]}}, {"stg_name", {names[1]}}, {"enabled", enabled_view(*enabled)}});
    return exit_of_answer(*enabled);
}

static exit_code run_nodeapps(const session &library, const given_names &names) {
    const auto found = library.read("the applications of node " + names[0] + " cannot be shown",
                                    [&] { return library->fetch_nodeapps_config(names[0]); });
    output_format format = library.shared.format;
    return show_result(format, "prsr_nodeapps_cfg", "record", view_of(*found, format));
}

void add_stg_nodeapps_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"stg", "Show the whole record of a storage manager entry", "SCOPE NAME",
         with_library<run_stg>},
        {"stg-name", "Show the registered name of a storage manager entry", "SCOPE NAME",
         with_library<run_stg_name>},
        {"stg-enabled",
         "Report whether a storage manager entry is enabled: exit code 0, or disabled: 1",
         "SCOPE NAME", with_library<run_stg_enabled>},
        {"nodeapps", "Show the whole record of a node's applications", "NODE",
         with_library<run_nodeapps>},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
