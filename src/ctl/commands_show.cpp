// list and show: the databases and the whole record of one.
#include "admin/care/inspection.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"

namespace keyview::ctl {

static const char *const CANNOT_LIST = "the databases cannot be listed";

static exit_code run_list(const tool &shared, const given_names &) {
    session library(shared);
    char **db_list = nullptr;
    uint32_t db_count = 0;
    int32_t rc = prsr_list_db(library.status, library.ctx, &db_list, &db_count);
    view names = strings_view(db_list, db_list == nullptr ? 0 : db_count);
    // This operation reports a list that cannot be allocated as a bad argument; then there is
    // nothing to release.
    if (rc == PRSR_ERR_ARGUMENT) rc = PRSR_ERR_MEMORY;
    if (db_list != nullptr) {
        (void)prsr_release_db_list(library.status, library.ctx, db_list, db_count);
    }
    library.check(rc, CANNOT_LIST);
    // A registry that cannot be enumerated looks empty to this operation.
    if (db_count == 0) attempt(CANNOT_LIST, shared.registry, admin::check_listing);
    show_result(shared.format, "db_list", "db_list", names);
    return EXIT_DONE;
}

static exit_code run_show(const tool &shared, const given_names &names) {
    session library(shared);
    fetched_record found(library, names[0]);
    library.check(found.rc, "database " + names[0] + " cannot be shown");
    show_result(shared.format, "prsr_cfg", "record", view_of(*found.record, shared.format));
    return EXIT_DONE;
}

static constexpr name_command COMMANDS[] = {
    {"list", "List the databases by their registered names", "", run_list},
    {"show", "Show the whole record of a database", "DB", run_show},
};

void add_show_commands(CLI::App *app, tool *shared) {
    add_name_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
