// Builds the views of record_view.h.
#include "ctl/record_view.h"

#include <initializer_list>
#include <iterator>

namespace keyview::ctl {

view strings_view(char *const *strings, uint32_t count) {
    if (strings == nullptr) return {};
    view_list list;
    for (uint32_t n = 0; n < count; ++n)
        list.push_back(text_view(strings[n]));
    return {std::move(list)};
}

static view flags_view(const int32_t *flags, uint32_t count) {
    if (flags == nullptr) return {};
    view_list list;
    for (uint32_t n = 0; n < count; ++n)
        list.push_back(flag_view(flags[n]));
    return {std::move(list)};
}

view policy_view(int32_t policy) {
    static constexpr const char *WORDS[] = {"-", "NONE", "BASIC", "PRECONNECT"};
    bool known = policy >= 0 && policy <= PRSR_RCN_PRECONNECT;
    return {coded{policy, known ? WORDS[policy] : std::to_string(policy)}};
}

static void add(view_fields *fields, std::initializer_list<view_fields::value_type> more) {
    fields->insert(fields->end(), more);
}

// "sales1, enabled": one line for people.
static view instances_view(char *const *names, const int32_t *flags, uint32_t count) {
    if (names == nullptr) return {};
    view_list list;
    for (uint32_t n = 0; n < count; ++n) {
        std::string name = names[n] == nullptr ? "-" : names[n];
        list.push_back({name + (flags[n] != 0 ? ", enabled" : ", disabled")});
    }
    return {std::move(list)};
}

static void add_instances(view_fields *fields, const prsr_srv_cfg &record, output_format format) {
    if (format == output_format::table) {
        return add(fields, {{"preferred", instances_view(record.preferred, record.preferred_enabled,
                                                         record.preferred_count)},
                            {"available", instances_view(record.available, record.available_enabled,
                                                         record.available_count)}});
    }
    add(fields,
        {{"available", strings_view(record.available, record.available_count)},
         {"available_enabled", flags_view(record.available_enabled, record.available_count)},
         {"available_count", number_view(record.available_count)},
         {"preferred", strings_view(record.preferred, record.preferred_count)},
         {"preferred_enabled", flags_view(record.preferred_enabled, record.preferred_count)},
         {"preferred_count", number_view(record.preferred_count)}});
}

static void add_env(view_fields *fields, char *const *env, uint32_t env_n, output_format format) {
    add(fields, {{"env", strings_view(env, env_n)}});
    if (format != output_format::table) add(fields, {{"env_n", number_view(env_n)}});
}

static view instance_view(const prsr_inst_cfg *record, output_format format) {
    if (record == nullptr) return {};
    view_fields fields = {{"name", text_view(record->name)}, {"node", text_view(record->node)}};
    add_env(&fields, record->env, record->env_n, format);
    add(&fields, {{"enabled", flag_view(record->enabled)}});
    return {std::move(fields)};
}

static view service_view(const prsr_srv_cfg *record, output_format format) {
    if (record == nullptr) return {};
    view_fields fields = {{"name", text_view(record->name)}};
    add_instances(&fields, *record, format);
    add(&fields, {{"rcn_policy", policy_view(record->rcn_policy)}});
    add_env(&fields, record->env, record->env_n, format);
    add(&fields, {{"enabled", flag_view(record->enabled)}});
    return {std::move(fields)};
}

// An array of records; null if the record has none.
template <typename record, typename one_view>
static view records_view(record *const *records, uint32_t count, output_format format,
                         one_view &&of) {
    if (records == nullptr) return {};
    view_list list;
    for (uint32_t n = 0; n < count; ++n)
        list.push_back(of(records[n], format));
    return {std::move(list)};
}

view view_of(const prsr_cfg &record, output_format format) {
    bool all = format != output_format::table;
    view_fields fields = {
        {"sp_name", text_view(record.sp_name)},
        {"alias_ip", text_view(record.alias_ip)},
        {"home", text_view(record.home)},
        {"spfile", text_view(record.spfile)},
        {"db_name", text_view(record.db_name)},
        {"role", text_view(record.role)},
        {"start_options", text_view(record.start_options)},
        {"domain", text_view(record.domain)},
        {"policy", text_view(record.policy)},
        {"enabled", flag_view(record.enabled)},
    };
    add_env(&fields, record.env, record.env_n, format);
    add(&fields, {{"instances",
                   records_view(record.instances, record.instance_count, format, instance_view)}});
    if (all) add(&fields, {{"instance_count", number_view(record.instance_count)}});
    add(&fields,
        {{"services", records_view(record.services, record.service_count, format, service_view)}});
    if (all) {
        add(&fields, {{"service_count", number_view(record.service_count)},
                      {"constant_one", number_view(record.constant_one)}});
    }
    return {std::move(fields)};
}

view view_of(const prsr_stg_cfg &record, output_format format) {
    view_fields fields = {
        {"spfile", text_view(record.spfile)},
        {"home", text_view(record.home)},
        {"start_options", text_view(record.start_options)},
        {"version", text_view(record.version)},
    };
    add_env(&fields, record.env, record.env_n, format);
    add(&fields, {{"enabled", flag_view(record.enabled)}});
    return {std::move(fields)};
}

view view_of(const prsr_nodeapps_cfg &record, output_format format) {
    view_fields fields = {
        {"name", text_view(record.name)},       {"home", text_view(record.home)},
        {"vip", text_view(record.vip)},         {"interfaces", text_view(record.interfaces)},
        {"netmask", text_view(record.netmask)},
    };
    add_env(&fields, record.env, record.env_n, format);
    if (format != output_format::table) {
        add(&fields, {{"constant_one", number_view(record.constant_one)}});
    }
    return {std::move(fields)};
}

}  // namespace keyview::ctl
