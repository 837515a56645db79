// status: the picture of a database, or of all of them, on one screen.
#include <algorithm>

#include "admin/care/inspection.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/people_writer.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "ctl/text.h"
#include "host/if/keyview_host.h"
#include "model/folding.h"

namespace keyview::ctl {

static std::string text_of(std::string_view text) {
    return std::string(text.data() == nullptr ? "-" : text);
}

// ---- One database -------------------------------------------------------------------------------

// "Sales1", or "Sales3 (disabled)".
static view named_instances(const prsr::service_instance_list &instances) {
    view_list list;
    for (const prsr::service_instance &one : instances)
        list.push_back({text_of(one.name) + (one.enabled ? "" : " (disabled)")});
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
    const auto found = library->fetch_db_config(dbname);
    library.check_record(found.code(), "the status of database " + dbname + " cannot be read",
                         database_key(dbname));
    const prsr::database record = *found;
    view_list instances = instance_rows(record.instances()),
              services = service_rows(record.services());
    if (library.shared.format == output_format::table) {
        std::string head = "database " + escaped(text_of(record.sp_name())) + ": " +
                           (record.enabled() ? "enabled" : "disabled") + ", role " +
                           escaped(text_of(record.role())) + ", policy " +
                           escaped(text_of(record.policy())) + "\n";
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

template <typename records>
static int64_t enabled_of(const records &listed) {
    return std::count_if(listed.begin(), listed.end(),
                         [](const auto &one) { return one.enabled(); });
}

namespace {

// What keeps a database from being shown in full, if anything does.
struct trouble {
    exit_code code = EXIT_DONE;
    std::string why = {};
};

}  // namespace

// Without a record only its name and the trouble are known.
static view database_row(const std::string &name, const prsr::database &record,
                         const trouble &found, bool people) {
    auto known = [&](const view &shown) { return record ? shown : view{}; };
    view state = {coded{0, "unreadable", tone::bad}};
    if (record) state = enabled_view(record.enabled());
    view_fields fields = {{"database", {name}},
                          {people ? "state" : "enabled", people ? state : known(state)},
                          {"role", record ? text_view(record.role()) : view{}}};
    auto add_share = [&](const std::string &what, const auto &listed) {
        const int64_t enabled = enabled_of(listed), all = listed.size();
        if (people) {
            std::string share = std::to_string(enabled) + " of " + std::to_string(all);
            fields.push_back({what + " enabled", known({share})});
        } else {
            fields.push_back({what, known(number_view(all))});
            fields.push_back({what + "_enabled", known(number_view(enabled))});
        }
    };
    add_share("instances", record ? record.instances() : prsr::instance_list());
    add_share("services", record ? record.services() : prsr::service_list());
    if (!people) {
        fields.push_back(
            {"error", found.code == EXIT_DONE ? view{} : text_view(exit_word(found.code))});
        fields.push_back({"why", optional_view(found.why)});
    }
    return {std::move(fields)};
}

// Several busy databases are waited for as long as one may be. A registry that fails as a whole ends
// the command.
static trouble trouble_of(const session &library, int32_t rc, const char *what) {
    if (rc == PRSR_SUCCESS) return {};
    const tool_error failed = library.failure(rc, what);
    if (failed.code == EXIT_LOCK) (void)keyview_host_set_lock_wait(0);
    if (failed.code == EXIT_LOCK || failed.code == EXIT_CONTENT) return {failed.code, failed.why};
    attempt(what, library.shared.registry, [] { return admin::registry::open().revision(); });
    if (failed.code != EXIT_REGISTRY) library.check(rc, what);
    return {EXIT_CONTENT, failed.why};
}

// The exit code is the highest one of a database.
static exit_code show_all(const session &library) {
    static constexpr const char *WHAT = "the status of the cluster cannot be read";
    output_format format = library.shared.format;
    bool people = format == output_format::table;
    view_list rows;
    exit_code code = EXIT_DONE;
    std::string troubles;
    const std::vector<admin::listed_database> databases =
        attempt(WHAT, library.shared.registry, admin::list_databases);
    for (const admin::listed_database &one : databases) {
        library.shared.reporter->count(static_cast<uint64_t>(&one - databases.data()),
                                       databases.size());
        const auto fetched = library->fetch_db_config(one.element);
        if (fetched.code() == PRSR_ERR_NO_DATABASE && one.reason.empty())
            continue;  // removed meanwhile
        trouble found = {EXIT_CONTENT, one.reason};
        if (one.reason.empty()) found = trouble_of(library, fetched.code(), WHAT);
        const prsr::database record = fetched && !one.damaged ? *fetched : prsr::database();
        std::string name = one.element;
        if (record && one.reason.empty()) name = text_of(record.sp_name());
        rows.push_back(database_row(name, record, found, people));
        if (found.code == EXIT_DONE) continue;
        code = std::max(code, found.code);
        troubles += "\n" + escaped(name) + ": " + escaped(found.why) +
                    "\n  do: " + exit_rows().first[found.code].todo + "\n";
    }
    show_result(format, "cluster_status", "databases", {std::move(rows)});
    if (people) write_result(troubles);
    return code;
}

static exit_code run_status(const session &library, const given_names &names) {
    return names[0].empty() ? show_all(library) : show_database(library, names[0]);
}

void add_status_command(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"status", "Show the services, instances and nodes of a database, or sum up the cluster",
         "[DB]", with_library<run_status>},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
