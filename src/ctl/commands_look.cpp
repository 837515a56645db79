// list and show: what the registry says, through the library's own operations.
#include <memory>

#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"

namespace keyview::ctl {

// No key path is longer.
static constexpr size_t MAX_NAME = 2047;

static const char *const CANNOT_LIST = "the databases cannot be listed";

static void run_list(const tool &shared) {
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
    if (db_count == 0) check_result(admin::check_listing(), CANNOT_LIST, shared.registry);
    show_result(shared.format, "db_list", "db_list", names);
}

static void run_show(const tool &shared, const std::string &name) {
    if (name.empty() || name.size() > MAX_NAME) {
        throw tool_error{EXIT_USAGE, "this is no name of a database", "",
                         name.empty() ? "it is empty" : "it is too long", TRY_LIST};
    }
    session library(shared);
    prsr_cfg *record = nullptr;
    int32_t rc = prsr_fetch_db_config(library.status, library.ctx, name.c_str(), &record);
    library.check(rc, "database " + name + " cannot be shown");
    view shown = view_of(*record, shared.format);
    (void)prsr_release_db_config(library.status, library.ctx, record);  // it has no other failure
    show_result(shared.format, "prsr_cfg", "record", shown);
}

void add_look_commands(CLI::App *app, tool *shared) {
    add_command(app, shared, "list", "List the databases by their registered names",
                [shared] { run_list(*shared); });

    auto name = std::make_shared<std::string>();
    CLI::App *show = add_command(app, shared, "show", "Show the whole record of a database",
                                 [shared, name] { run_show(*shared, *name); });
    show->add_option("DB", *name, "Name of the database, in any case")->required();
}

}  // namespace keyview::ctl
