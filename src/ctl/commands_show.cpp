// list and show: the databases and the whole record of one.
#include "admin/registry.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "model/folding.h"
#include "model/path.h"
#include "model/roots.h"

namespace keyview::ctl {

// No list operation of the library covers these; their roots may be missing.
static admin::key_map list_of(const tool &shared, const char *root, reach depth) {
    admin::key_map keys;
    attempt("the names cannot be listed", shared.registry, [&] {
        return admin::registry::open().read({{root, depth}}, &keys);
    });
    keys.erase(root);
    return keys;
}

static std::string name_in(const std::string &path, const std::string &value) {
    return value.empty() ? std::string(last_element(path)) : value.substr(0, value.find('\0'));
}

static exit_code list_nodes(const tool &shared) {
    view_list names;
    for (const auto &[path, value] : list_of(shared, NODEAPPS_ROOT, reach::children))
        names.push_back({name_in(path, value)});
    return show_result(shared.format, "node_list", "nodes", {std::move(names)});
}

static exit_code list_stg(const tool &shared) {
    view_list entries;
    for (const auto &[path, value] : list_of(shared, STG_ROOT, reach::all_below)) {
        const std::string scope(parent_path(path));
        if (parent_path(scope) != STG_ROOT) continue;
        entries.push_back({view_fields{{"scope", {std::string(last_element(scope))}},
                                       {"name", {name_in(path, value)}}}});
    }
    return show_result(shared.format, "stg_list", "storage_managers", {std::move(entries)});
}

static exit_code run_list(const session &library, const given_names &names) {
    if (names[0] == "nodes") return list_nodes(library.shared);
    if (names[0] == "storage-managers") return list_stg(library.shared);
    return show_result(library.shared.format, "db_list", "db_list",
                       {database_names(library, "the databases cannot be listed")});
}

static exit_code run_show(const session &library, const given_names &names) {
    const auto found = library->fetch_db_config(names[0]);
    library.check_record(found.code(), "database " + names[0] + " cannot be shown",
                         database_key(names[0]));
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
