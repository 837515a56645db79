// roster, role, policy, domain, name and instance-on: single facts about a database and its
// services.
#include <algorithm>
#include <iterator>
#include <utility>

#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "host/if/keyview_host.h"
#include "model/folding.h"
#include "model/words.h"

namespace keyview::ctl {

// "service reporting of database Sales".
static std::string service_subject(const given_names &names) {
    return "service " + names[1] + " of database " + names[0];
}

// Reads the flag of a service: PRSR_ERR_NO_DATABASE if there is no such service.
static int32_t probe_service(const session &library, const given_names &names) {
    return library->get_service_enabled(names[0], names[1]).code();
}

// Reads a field of the database's record: PRSR_ERR_NO_DATABASE if either is missing.
static int32_t probe_field(const session &library, const std::string &dbname,
                           std::string_view (prsr::database::*field)() const) {
    const auto found = library->fetch_db_config(dbname);
    if (!found) return found.code();
    return ((*found).*field)().data() == nullptr ? PRSR_ERR_NO_DATABASE : PRSR_SUCCESS;
}

// ---- Services -----------------------------------------------------------------------------------

static exit_code run_roster(const session &library, const given_names &names) {
    const auto found = library->get_srv_instances(names[0], names[1]);
    library.check(refined(found.code(), [&] { return probe_service(library, names); }),
                  "the roster of " + service_subject(names) + " cannot be read");
    view_list roster;
    for (const prsr::roster_entry &one : *found) {
        roster.push_back({view_fields{{"instance", text_view(one.instance)},
                                      {"node", text_view(one.node)},
                                      {"available", flag_view(one.available)}}});
    }
    return show_answer(
        library.shared.format, "roster",
        {{"dbname", {names[0]}}, {"srvname", {names[1]}}, {"roster", {std::move(roster)}}});
}

// This operation reports NONE for whatever cannot be read; only an existing service may have none.
static exit_code run_policy(const session &library, const given_names &names) {
    const std::string what = "the failover policy of " + service_subject(names) + " cannot be read";
    const auto policy =
        library.read(what, [&] { return library->get_service_rcn_policy(names[0], names[1]); });
    bool nothing_read = *keyview_host_last_error() != '\0';
    if (nothing_read) library.check(probe_service(library, names), what);
    return show_answer(
        library.shared.format, "rcn_policy",
        {{"dbname", {names[0]}}, {"srvname", {names[1]}}, {"rcn_policy", policy_view(*policy)}});
}

// ---- Role and domain ----------------------------------------------------------------------------

// The command line has the new role as one of ROLES.
static exit_code set_role(const session &library, const given_names &names) {
    auto role = static_cast<int32_t>(std::find(ROLES, std::end(ROLES), names[1]) - ROLES);
    return change_words(
        library, "the role of database " + names[0] + " cannot be set",
        {database_key(names[0]) + "." + KEY_ROLE, false, ROLES[role]},
        [&] { return library->set_db_role(names[0], static_cast<prsr::role>(role)).code(); });
}

static exit_code run_role(const session &library, const given_names &names) {
    bool sets = !names[1].empty();
    const auto found = library->get_db_role(names[0]);
    int32_t rc = found.code();
    if (rc == PRSR_ERR_ROLE && sets) rc = PRSR_SUCCESS;  // an invalid word is replaced
    rc = refined(rc, [&] { return probe_field(library, names[0], &prsr::database::role); });
    library.check(rc, "the role of database " + names[0] + " cannot be " + (sets ? "set" : "read"));
    if (sets) return set_role(library, names);
    const auto role = static_cast<int32_t>(*found);
    return show_answer(library.shared.format, "role",
                       {{"dbname", {names[0]}}, {"role", {coded{role, ROLES[role]}}}});
}

static exit_code run_domain(const session &library, const given_names &names) {
    const auto domain = library->get_domain(names[0]);
    library.check(refined(domain.code(),
                          [&] { return probe_field(library, names[0], &prsr::database::domain); }),
                  "the domain of database " + names[0] + " cannot be read");
    return show_answer(library.shared.format, "domain",
                       {{"dbname", {names[0]}}, {"domain", text_view(domain->text())}});
}

// ---- Names --------------------------------------------------------------------------------------

static exit_code run_name(const session &library, const given_names &names) {
    const auto name = names[1].empty() ? library->get_spname(names[0])
                                       : library->get_instance_name(names[0], names[1]);
    library.check(name.code(), "the registered name of " +
                                   (names[1].empty() ? "" : "instance " + names[1] + " of ") +
                                   "database " + names[0] + " cannot be read");
    return show_answer(
        library.shared.format, "name",
        {{"dbname", {names[0]}}, {"instname", optional_view(names[1])}, {"name", {*name}}});
}

// The node came before the database once: that order is read, too, where only it makes sense.
static exit_code run_instance_on(const session &library, const given_names &given) {
    given_names names = given;
    auto read = [&](std::string *name) {
        const auto found = library->get_node_instance_name(names[0], names[1]);
        *name = *found;
        return refined(found.code(),
                       [&] { return probe_field(library, names[0], &prsr::database::sp_name); });
    };
    std::string name;
    int32_t rc = read(&name);
    if (rc == PRSR_ERR_NO_DATABASE &&
        probe_field(library, names[1], &prsr::database::sp_name) == 0) {
        std::swap(names[0], names[1]);
        print_remark("the database comes first: instance-on " + names[0] + " " + names[1]);
        rc = read(&name);
    }
    library.check(
        rc, "the instance of database " + names[0] + " on node " + names[1] + " cannot be read");
    show_answer(
        library.shared.format, "instance",
        {{"nodename", {names[1]}}, {"dbname", {names[0]}}, {"instance", optional_view(name)}});
    return exit_of_answer(name.empty() ? 0 : 1);
}

void add_query_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"roster", "List on which instances and nodes a service runs; available: it takes over",
         "DB SERVICE", with_library<run_roster>},
        {"policy", "Show the failover policy of a service: NONE, BASIC or PRECONNECT", "DB SERVICE",
         with_library<run_policy>},
        {"role", "Show the role of a database, or set it", "DB [ROLE] --dry-run",
         with_library<run_role>},
        {"domain", "Show the domain of a database", "DB", with_library<run_domain>},
        {"name", "Show the registered name of a database or of an instance", "DB [INSTANCE]",
         with_library<run_name>},
        {"instance-on", "Show which instance of a database is on a node; exit code 1 if none is",
         "DB NODE", with_library<run_instance_on>},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
