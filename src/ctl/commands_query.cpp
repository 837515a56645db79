// roster, role, policy, domain, name and instance-on: single facts about a database and its
// services.
#include <strings.h>

#include <iterator>

#include "admin/change/keys.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "host/if/keyview_host.h"
#include "model/folding.h"
#include "model/locks.h"
#include "model/words.h"

namespace keyview::ctl {

// Asks for the flag of a service: PRSR_ERR_NO_DATABASE if there is no such service.
static int32_t ask_for_service(const session &library, const given_names &names) {
    int32_t ignored = 0;
    return prsr_get_service_enabled(library.status, library.ctx, names[0].c_str(), names[1].c_str(),
                                    &ignored);
}

// Asks for a field of the database's record: PRSR_ERR_NO_DATABASE if either is missing.
static int32_t ask_for_field(const session &library, const std::string &dbname,
                             char *prsr_cfg::*field) {
    prsr_cfg *record = nullptr;
    int32_t rc = prsr_fetch_db_config(library.status, library.ctx, dbname.c_str(), &record);
    if (rc != PRSR_SUCCESS) return rc;
    bool missing = record->*field == nullptr;
    (void)prsr_release_db_config(library.status, library.ctx, record);  // it has no other failure
    return missing ? PRSR_ERR_NO_DATABASE : PRSR_SUCCESS;
}

// ---- Services -----------------------------------------------------------------------------------

static exit_code run_roster(const tool &shared, const given_names &names) {
    session library(shared);
    char **inst_names = nullptr, **node_names = nullptr;
    int32_t *avail = nullptr;
    uint32_t inst_count = 0;
    int32_t rc =
        prsr_get_srv_instances(library.status, library.ctx, names[0].c_str(), names[1].c_str(),
                               &inst_names, &node_names, &avail, &inst_count);
    rc = tell_missing(rc, [&] { return ask_for_service(library, names); });
    library.check(
        rc, "the roster of service " + names[1] + " of database " + names[0] + " cannot be read");
    view_list roster;
    for (uint32_t n = 0; n < inst_count; ++n) {
        roster.push_back({view_fields{{"instance", text_view(inst_names[n])},
                                      {"node", text_view(node_names[n])},
                                      {"available", flag_view(avail[n])}}});
    }
    (void)prsr_release_srv_instances(library.status, library.ctx, inst_names, node_names, avail,
                                     inst_count);  // it has no other failure
    show_answer(shared.format, "roster",
                {{"dbname", {names[0]}}, {"srvname", {names[1]}}, {"roster", {std::move(roster)}}});
    return EXIT_DONE;
}

// This operation says NONE for whatever cannot be read; only a service that is there may have none.
static exit_code run_policy(const tool &shared, const given_names &names) {
    session library(shared);
    int32_t policy = 0;
    int32_t rc = prsr_get_service_rcn_policy(library.status, library.ctx, names[0].c_str(),
                                             names[1].c_str(), &policy);
    bool nothing_read = rc == PRSR_SUCCESS && *keyview_host_last_error() != '\0';
    if (nothing_read) rc = ask_for_service(library, names);
    library.check(rc, "the failover policy of service " + names[1] + " of database " + names[0] +
                          " cannot be read");
    show_answer(
        shared.format, "rcn_policy",
        {{"dbname", {names[0]}}, {"srvname", {names[1]}}, {"rcn_policy", policy_view(policy)}});
    return EXIT_DONE;
}

// ---- Role and domain ----------------------------------------------------------------------------

static int32_t role_of(const std::string &word) {
    std::string all;
    for (size_t role = 0; role < std::size(ROLES); ++role) {
        if (strcasecmp(word.c_str(), ROLES[role]) == 0) return static_cast<int32_t>(role);
        all += (role > 0 ? ", " : "") + std::string(ROLES[role]);
    }
    throw tool_error{EXIT_USAGE, word + " is not a role", "", "the roles are " + all,
                     "use one of them, in any case"};
}

static exit_code set_role(const tool &shared, const given_names &names) {
    int32_t role = role_of(names[1]), present = 0;
    session library(shared);
    int32_t rc = prsr_get_db_role(library.status, library.ctx, names[0].c_str(), &present);
    if (rc == PRSR_ERR_ROLE) rc = PRSR_SUCCESS;  // it is to be replaced
    rc = tell_missing(rc, [&] { return ask_for_field(library, names[0], &prsr_cfg::role); });
    const std::string what = "the role of database " + names[0] + " cannot be set";
    library.check(rc, what);
    const std::string key = database_key(names[0]) + "." + KEY_ROLE;
    admin::read_keys_result found =
        attempt(what, shared.registry, [&] { return admin::read_keys(key, reach::key_alone); });
    admin::change_result changed = {{}, {lock_of(key)}, found.revision};
    const std::string stored = ROLES[role] + std::string(1, '\0');
    if (shared.dry_run && found.keys[key] != stored) {
        changed.changes.push_back({key, found.keys[key], stored});
    } else if (!shared.dry_run) {
        admin::set_recorder recorder;
        rc = prsr_set_db_role(library.status, library.ctx, names[0].c_str(), role);
        library.check(rc, what);
        changed.changes = recorder.changes();
    }
    show_changes(shared, changed);
    return EXIT_DONE;
}

static exit_code run_role(const tool &shared, const given_names &names) {
    if (!names[1].empty()) return set_role(shared, names);
    int32_t role = 0;
    session library(shared);
    int32_t rc = prsr_get_db_role(library.status, library.ctx, names[0].c_str(), &role);
    rc = tell_missing(rc, [&] { return ask_for_field(library, names[0], &prsr_cfg::role); });
    library.check(rc, "the role of database " + names[0] + " cannot be read");
    show_answer(shared.format, "role",
                {{"dbname", {names[0]}}, {"role", {coded{role, ROLES[role]}}}});
    return EXIT_DONE;
}

static exit_code run_domain(const tool &shared, const given_names &names) {
    session library(shared);
    char *domain = nullptr;
    int32_t rc = prsr_get_domain(library.status, library.ctx, names[0].c_str(), &domain);
    rc = tell_missing(rc, [&] { return ask_for_field(library, names[0], &prsr_cfg::domain); });
    library.check(rc, "the domain of database " + names[0] + " cannot be read");
    view shown = text_view(domain);
    (void)prsr_free_domain(library.ctx, domain);  // null does no harm
    show_answer(shared.format, "domain", {{"dbname", {names[0]}}, {"domain", std::move(shown)}});
    return EXIT_DONE;
}

// ---- Names --------------------------------------------------------------------------------------

static exit_code run_name(const tool &shared, const given_names &names) {
    session library(shared);
    const char *dbname = names[0].c_str(), *instname = names[1].c_str();
    std::string name;
    int32_t rc = read_name(
        [&](uint32_t size, char *buf) {
            return *instname == '\0'
                       ? prsr_get_spname(library.status, library.ctx, dbname, size, buf)
                       : prsr_get_instance_name(library.status, library.ctx, dbname, instname, size,
                                                buf);
        },
        &name);
    library.check(rc, "the registered name of " +
                          (names[1].empty() ? "" : "instance " + names[1] + " of ") + "database " +
                          names[0] + " cannot be read");
    show_answer(shared.format, "name",
                {{"dbname", {names[0]}}, {"instname", optional_view(names[1])}, {"name", {name}}});
    return EXIT_DONE;
}

static exit_code run_instance_on(const tool &shared, const given_names &names) {
    session library(shared);
    const char *nodename = names[0].c_str(), *dbname = names[1].c_str();
    std::string name;
    int32_t rc = read_name(
        [&](uint32_t size, char *buf) {
            return prsr_get_node_instance_name(library.status, library.ctx, dbname, nodename, size,
                                               buf);
        },
        &name);
    rc = tell_missing(rc, [&] { return ask_for_field(library, names[1], &prsr_cfg::sp_name); });
    library.check(
        rc, "the instance of database " + names[1] + " on node " + names[0] + " cannot be read");
    show_answer(
        shared.format, "instance",
        {{"nodename", {names[0]}}, {"dbname", {names[1]}}, {"instance", optional_view(name)}});
    return exit_of_answer(name.empty() ? 0 : 1);
}

static constexpr name_command COMMANDS[] = {
    {"roster", "List on which instances and nodes a service runs; available: it takes over",
     "DB SERVICE", run_roster},
    {"policy", "Show the failover policy of a service: NONE, BASIC or PRECONNECT", "DB SERVICE",
     run_policy},
    {"role", "Show the role of a database, or set it", "DB [ROLE]", run_role, true},
    {"domain", "Show the domain of a database", "DB", run_domain},
    {"name", "Show the registered name of a database or of an instance", "DB [INSTANCE]", run_name},
    {"instance-on", "Show which instance of a database is on a node; exit code 1 if none is",
     "NODE DB", run_instance_on},
};

void add_query_commands(CLI::App *app, tool *shared) {
    add_name_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
