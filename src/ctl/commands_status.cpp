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

static std::string text_of(const char *text) {
    return text == nullptr ? "-" : text;
}

// ---- One database -------------------------------------------------------------------------------

// "Sales1", or "Sales3 (disabled)".
static view named_instances(char *const *names, const int32_t *flags, uint32_t count) {
    view_list list;
    for (uint32_t n = 0; n < count; ++n)
        list.push_back({text_of(names[n]) + (flags[n] != 0 ? "" : " (disabled)")});
    return {std::move(list)};
}

// The fields of each record of an array.
template <typename record>
static view_list rows_of(record *const *records, uint32_t count,
                         view_fields (*fields_of)(const record &)) {
    view_list rows;
    for (uint32_t n = 0; n < count && records != nullptr; ++n)
        if (records[n] != nullptr) rows.push_back({fields_of(*records[n])});
    return rows;
}

static view_fields instance_fields(const prsr_inst_cfg &one) {
    return {{"instance", text_view(one.name)},
            {"node", text_view(one.node)},
            {"state", enabled_view(one.enabled)}};
}

static view_fields service_fields(const prsr_srv_cfg &one) {
    return {
        {"service", text_view(one.name)},
        {"state", enabled_view(one.enabled)},
        {"failover", policy_view(one.rcn_policy)},
        {"preferred", named_instances(one.preferred, one.preferred_enabled, one.preferred_count)},
        {"available", named_instances(one.available, one.available_enabled, one.available_count)}};
}

static std::string section(const view_list &rows) {
    return rows.empty() ? "" : "\n" + text_for_people({rows});
}

static exit_code show_database(const session &library, const std::string &dbname) {
    fetched_database found(library, dbname);
    library.check_record(found.rc, "the status of database " + dbname + " cannot be read",
                         database_key(dbname));
    const prsr_cfg &record = *found.record;
    view_list instances = rows_of(record.instances, record.instance_count, instance_fields),
              services = rows_of(record.services, record.service_count, service_fields);
    if (library.shared.format == output_format::table) {
        std::string head = "database " + escaped(text_of(record.sp_name)) + ": " +
                           (record.enabled != 0 ? "enabled" : "disabled") + ", role " +
                           escaped(text_of(record.role)) + ", policy " +
                           escaped(text_of(record.policy)) + "\n";
        write_result(head + section(instances) + section(services));
        return EXIT_DONE;
    }
    return show_result(library.shared.format, "database_status", "status",
                       {view_fields{{"database", text_view(record.sp_name)},
                                    {"enabled", flag_view(record.enabled)},
                                    {"role", text_view(record.role)},
                                    {"policy", text_view(record.policy)},
                                    {"instances", {std::move(instances)}},
                                    {"services", {std::move(services)}}}});
}

// ---- All of them --------------------------------------------------------------------------------

template <typename record>
static int64_t enabled_of(record *const *records, uint32_t count) {
    int64_t enabled = 0;
    for (uint32_t n = 0; n < count && records != nullptr; ++n)
        enabled += records[n] != nullptr && records[n]->enabled != 0;
    return enabled;
}

namespace {

// What keeps a database from being shown in full, if anything does.
struct trouble {
    exit_code code = EXIT_DONE;
    std::string why = {};
};

}  // namespace

// Without a record only its name and the trouble are known.
static view database_row(const std::string &name, const prsr_cfg *record, const trouble &found,
                         bool people) {
    auto known = [&](const view &shown) { return record == nullptr ? view{} : shown; };
    view state = {coded{0, "unreadable", tone::bad}};
    if (record != nullptr) state = enabled_view(record->enabled);
    view_fields fields = {{"database", {name}},
                          {people ? "state" : "enabled", people ? state : known(state)},
                          {"role", record == nullptr ? view{} : text_view(record->role)}};
    auto add_share = [&](const std::string &what, int64_t enabled, int64_t all) {
        if (people) {
            std::string share = std::to_string(enabled) + " of " + std::to_string(all);
            fields.push_back({what + " enabled", known({share})});
        } else {
            fields.push_back({what, known(number_view(all))});
            fields.push_back({what + "_enabled", known(number_view(enabled))});
        }
    };
    static constexpr prsr_cfg NOTHING = {};
    const prsr_cfg &of = record == nullptr ? NOTHING : *record;
    add_share("instances", enabled_of(of.instances, of.instance_count), of.instance_count);
    add_share("services", enabled_of(of.services, of.service_count), of.service_count);
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
        fetched_database fetched(library, one.element);
        if (fetched.rc == PRSR_ERR_NO_DATABASE && one.reason.empty())
            continue;  // removed meanwhile
        trouble found = {EXIT_CONTENT, one.reason};
        if (one.reason.empty()) found = trouble_of(library, fetched.rc, WHAT);
        const bool readable = fetched.rc == PRSR_SUCCESS && !one.damaged;
        const prsr_cfg *record = readable ? fetched.record : nullptr;
        std::string name = one.element;
        if (record != nullptr && one.reason.empty()) name = text_of(record->sp_name);
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
