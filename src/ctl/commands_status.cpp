// status: the picture of a database, or of all of them, on one screen.
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/people_writer.h"
#include "ctl/record_view.h"
#include "ctl/session.h"
#include "ctl/text.h"
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

static view_list instance_rows(const prsr_cfg &record) {
    view_list rows;
    for (uint32_t n = 0; n < record.instance_count && record.instances != nullptr; ++n) {
        const prsr_inst_cfg *one = record.instances[n];
        if (one == nullptr) continue;
        rows.push_back({view_fields{{"instance", text_view(one->name)},
                                    {"node", text_view(one->node)},
                                    {"state", enabled_view(one->enabled)}}});
    }
    return rows;
}

static view_list service_rows(const prsr_cfg &record) {
    view_list rows;
    for (uint32_t n = 0; n < record.service_count && record.services != nullptr; ++n) {
        const prsr_srv_cfg *one = record.services[n];
        if (one == nullptr) continue;
        rows.push_back({view_fields{
            {"service", text_view(one->name)},
            {"state", enabled_view(one->enabled)},
            {"failover", policy_view(one->rcn_policy)},
            {"preferred",
             named_instances(one->preferred, one->preferred_enabled, one->preferred_count)},
            {"available",
             named_instances(one->available, one->available_enabled, one->available_count)}}});
    }
    return rows;
}

static std::string section(const view_list &rows) {
    return rows.empty() ? "" : "\n" + text_for_people({rows});
}

static exit_code show_database(const session &library, const std::string &dbname) {
    fetched_database found(library, dbname);
    library.check(found.rc, "the status of database " + dbname + " cannot be read");
    const prsr_cfg &record = *found.record;
    if (library.shared.format == output_format::table) {
        std::string head = "database " + escaped(text_of(record.sp_name)) + ": " +
                           (record.enabled != 0 ? "enabled" : "disabled") + ", role " +
                           escaped(text_of(record.role)) + ", policy " +
                           escaped(text_of(record.policy)) + "\n";
        write_result(head + section(instance_rows(record)) + section(service_rows(record)));
        return EXIT_DONE;
    }
    return show_result(library.shared.format, "database_status", "status",
                       {view_fields{{"database", text_view(record.sp_name)},
                                    {"enabled", flag_view(record.enabled)},
                                    {"role", text_view(record.role)},
                                    {"policy", text_view(record.policy)},
                                    {"instances", {instance_rows(record)}},
                                    {"services", {service_rows(record)}}}});
}

// ---- All of them --------------------------------------------------------------------------------

static view share_view(int64_t enabled, int64_t all) {
    return {std::to_string(enabled) + " of " + std::to_string(all)};
}

template <typename record>
static int64_t enabled_of(record *const *records, uint32_t count) {
    int64_t enabled = 0;
    for (uint32_t n = 0; n < count && records != nullptr; ++n)
        enabled += records[n] != nullptr && records[n]->enabled != 0;
    return enabled;
}

static view database_row(const prsr_cfg &record, bool people) {
    int64_t instances = enabled_of(record.instances, record.instance_count),
            services = enabled_of(record.services, record.service_count);
    view_fields fields = {{"database", text_view(record.sp_name)},
                          {people ? "state" : "enabled", enabled_view(record.enabled)},
                          {"role", text_view(record.role)}};
    if (people) {
        fields.push_back({"instances enabled", share_view(instances, record.instance_count)});
        fields.push_back({"services enabled", share_view(services, record.service_count)});
    } else {
        fields.push_back({"instances", number_view(record.instance_count)});
        fields.push_back({"instances_enabled", number_view(instances)});
        fields.push_back({"services", number_view(record.service_count)});
        fields.push_back({"services_enabled", number_view(services)});
    }
    return {std::move(fields)};
}

static exit_code show_all(const session &library) {
    static constexpr const char *WHAT = "the status of the cluster cannot be read";
    output_format format = library.shared.format;
    view_list rows;
    for (const view &name : database_names(library, WHAT)) {
        fetched_database found(library, std::get<std::string>(name.value));
        if (found.rc == PRSR_ERR_NO_DATABASE) continue;  // removed meanwhile
        library.check(found.rc, WHAT);
        rows.push_back(database_row(*found.record, format == output_format::table));
    }
    return show_result(format, "cluster_status", "databases", {std::move(rows)});
}

static exit_code run_status(const session &library, const given_names &names) {
    return names[0].empty() ? show_all(library) : show_database(library, names[0]);
}

static constexpr name_command COMMANDS[] = {
    {"status", "Show the services, instances and nodes of a database, or sum up the cluster",
     "[DB]", with_library<run_status>},
};

void add_status_command(CLI::App *app, tool *shared) {
    add_name_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
