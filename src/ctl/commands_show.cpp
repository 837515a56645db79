// list and show: the databases and the whole record of one.
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "model/folding.h"

namespace keyview::ctl {

static exit_code run_list(const session &library, const given_names &) {
    return show_result(library.shared.format, "db_list", "db_list",
                       {database_names(library, "the databases cannot be listed")});
}

static exit_code run_show(const session &library, const given_names &names) {
    fetched_database found(library, names[0]);
    library.check_record(found.rc, "database " + names[0] + " cannot be shown",
                         database_key(names[0]));
    output_format format = library.shared.format;
    return show_result(format, "prsr_cfg", "record", view_of(*found.record, format));
}

static constexpr command_row COMMANDS[] = {
    {"list", "List the databases by their registered names", "", with_library<run_list>},
    {"show", "Show the whole record of a database", "DB", with_library<run_show>},
};

void add_show_commands(CLI::App *app, tool *shared) {
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
