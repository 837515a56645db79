// list and show: the databases and the whole record of one.
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/overview.h"
#include "ctl/record_view.h"
#include "ctl/session.h"

namespace keyview::ctl {

static exit_code run_list(const session &library, const given_names &names) {
    const tool &shared = library.shared;
    if (names[0] == "nodes")
        return show_result(shared.format, "node_list", "nodes", names_view(list_nodes(shared)));
    if (names[0] == "storage-managers") {
        return show_result(shared.format, "stg_list", "storage_managers",
                           scopes_view(list_storage_managers(shared)));
    }
    return show_result(shared.format, "db_list", "db_list",
                       {database_names(library, "the databases cannot be listed")});
}

static exit_code run_show(const session &library, const given_names &names) {
    const auto found = library.read("database " + names[0] + " cannot be shown",
                                    [&] { return library->fetch_db_config(names[0]); });
    output_format format = library.shared.format;
    return show_result(format, "prsr_cfg", "record", view_of(*found, format));
}

void add_show_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"list",
         "List the databases by their registered names, or the nodes, or the storage managers",
         "[KIND]", with_library<run_list>},
        {"show", "Show the whole record of a database", "DB", with_library<run_show>},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
