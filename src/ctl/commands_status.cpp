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
    library.check(found.rc, "the status of database " + dbname + " cannot be read");
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

static view database_row(const prsr_cfg &record, bool people) {
    view_fields fields = {{"database", text_view(record.sp_name)},
                          {people ? "state" : "enabled", enabled_view(record.enabled)},
                          {"role", text_view(record.role)}};
    auto add_share = [&](const std::string &what, int64_t enabled, int64_t all) {
        if (people) {
            fields.push_back(
                {what + " enabled", {std::to_string(enabled) + " of " + std::to_string(all)}});
        } else {
            fields.push_back({what, number_view(all)});
            fields.push_back({what + "_enabled", number_view(enabled)});
        }
    };
    add_share("instances", enabled_of(record.instances, record.instance_count),
              record.instance_count);
    add_share("services", enabled_of(record.services, record.service_count), record.service_count);
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

static constexpr command_row COMMANDS[] = {
    {"status", "Show the services, instances and nodes of a database, or sum up the cluster",
     "[DB]", with_library<run_status>},
};

void add_status_command(CLI::App *app, tool *shared) {
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
