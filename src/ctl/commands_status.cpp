// status: the picture of a database, or of all of them, on one screen.
#include <algorithm>

#include "ctl/board/board.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/overview.h"
#include "ctl/people_writer.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "ctl/text.h"

namespace keyview::ctl {

// ---- One database -------------------------------------------------------------------------------

// "Sales1", or "Sales3 (disabled)".
static view named_instances(const prsr::service_instance_list &instances) {
    view_list list;
    for (const prsr::service_instance &one : instances)
        list.push_back({text_or_dash(one.name) + (one.enabled ? "" : " (disabled)")});
    return {std::move(list)};
}

static view_list instance_rows(const prsr::instance_list &instances) {
    view_list rows;
    for (const prsr::instance &one : instances)
        rows.push_back({view_fields{{"instance", text_view(one.name())},
                                    {"node", text_view(one.node())},
                                    {"state", enabled_view(one.enabled())}}});
    return rows;
}

static view_list service_rows(const prsr::service_list &services) {
    view_list rows;
    for (const prsr::service &one : services)
        rows.push_back({view_fields{{"service", text_view(one.name())},
                                    {"state", enabled_view(one.enabled())},
                                    {"failover", policy_view(one.rcn_policy())},
                                    {"preferred", named_instances(one.preferred())},
                                    {"available", named_instances(one.available())}}});
    return rows;
}

static std::string section(const view_list &rows) {
    return rows.empty() ? "" : "\n" + text_for_people({rows});
}

static exit_code show_database(const session &library, const std::string &dbname) {
    const auto found = library.read("the status of database " + dbname + " cannot be read",
                                    [&] { return library->fetch_db_config(dbname); });
    const prsr::database record = *found;
    view_list instances = instance_rows(record.instances()),
              services = service_rows(record.services());
    if (library.shared.format == output_format::table) {
        std::string head = "database " + escaped(text_or_dash(record.sp_name())) + ": " +
                           (record.enabled() ? "enabled" : "disabled") + ", role " +
                           escaped(text_or_dash(record.role())) + ", policy " +
                           escaped(text_or_dash(record.policy())) + "\n";
        write_result(head + section(instances) + section(services));
        return EXIT_DONE;
    }
    return show_result(library.shared.format, "database_status", "status",
                       {view_fields{{"database", text_view(record.sp_name())},
                                    {"enabled", flag_view(record.enabled())},
                                    {"role", text_view(record.role())},
                                    {"policy", text_view(record.policy())},
                                    {"instances", {std::move(instances)}},
                                    {"services", {std::move(services)}}}});
}

// ---- All of them --------------------------------------------------------------------------------

// The exit code is the highest one of a database.
static exit_code show_all(const session &library) {
    output_format format = library.shared.format;
    bool people = format == output_format::table;
    view_list rows;
    exit_code code = EXIT_DONE;
    std::string troubles;
    auto add = [&](const listed_record &one) {
        rows.push_back(database_row(one, people));
        if (one.code == EXIT_DONE) return;
        code = std::max(code, one.code);
        troubles += "\n" + escaped(one.name) + ": " + escaped(one.why) +
                    "\n  do: " + exit_rows().first[one.code].todo + "\n";
    };
    each_database(library, "the status of the cluster cannot be read", add);
    show_result(format, "cluster_status", "databases", {std::move(rows)});
    if (people) write_result(troubles);
    return code;
}

static exit_code run_status(const tool &shared, const given_names &names) {
    if (shared.follow) return run_board(shared, names[0]);
    const session library(shared);
    return names[0].empty() ? show_all(library) : show_database(library, names[0]);
}

void add_status_command(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"status", "Show the services, instances and nodes of a database, or sum up the cluster",
         "[DB] --follow", run_status},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
