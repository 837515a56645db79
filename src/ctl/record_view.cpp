// Builds the views of record_view.h.
#include "ctl/record_view.h"

#include <initializer_list>
#include <iterator>

#include "model/words.h"

namespace keyview::ctl {

view policy_view(int32_t policy) {
    std::string word = policy == 0 ? "-" : std::to_string(policy);
    for (size_t n = std::size(RCN_CODES); n-- > 0;)
        if (RCN_CODES[n] == policy) word = RCN_POLICIES[n];  // the first word of a code
    return {coded{policy, word}};
}

namespace {
enum class readers { all, people, programs };

struct record_field {
    const char *name;
    view shown;
    readers readers_of_it = readers::all;
};
}  // namespace

static view record_of(output_format format, std::initializer_list<record_field> fields) {
    readers hidden = format == output_format::table ? readers::programs : readers::people;
    view_fields shown;
    for (const record_field &field : fields)
        if (field.readers_of_it != hidden) shown.push_back({field.name, field.shown});
    return {std::move(shown)};
}

static view strings_view(char *const *strings, uint32_t count) {
    return list_view(strings, count, text_view);
}

// "sales1, enabled": one line for people.
static view instances_view(char *const *names, const int32_t *flags, uint32_t count) {
    return list_view(names, count, [&](char *const &name) -> view {
        return {(name == nullptr ? "-" : name) +
                std::string(flags[&name - names] != 0 ? ", enabled" : ", disabled")};
    });
}

static view instance_view(const prsr_inst_cfg &record, output_format format) {
    return record_of(format, {{"name", text_view(record.name)},
                              {"node", text_view(record.node)},
                              {"env", strings_view(record.env, record.env_n)},
                              {"env_n", number_view(record.env_n), readers::programs},
                              {"enabled", flag_view(record.enabled)}});
}

static view service_view(const prsr_srv_cfg &record, output_format format) {
    uint32_t preferred = record.preferred_count, available = record.available_count;
    return record_of(
        format,
        {{"name", text_view(record.name)},
         {"preferred", instances_view(record.preferred, record.preferred_enabled, preferred),
          readers::people},
         {"available", instances_view(record.available, record.available_enabled, available),
          readers::people},
         {"available", strings_view(record.available, available), readers::programs},
         {"available_enabled", list_view(record.available_enabled, available, flag_view),
          readers::programs},
         {"available_count", number_view(available), readers::programs},
         {"preferred", strings_view(record.preferred, preferred), readers::programs},
         {"preferred_enabled", list_view(record.preferred_enabled, preferred, flag_view),
          readers::programs},
         {"preferred_count", number_view(preferred), readers::programs},
         {"rcn_policy", policy_view(record.rcn_policy)},
         {"env", strings_view(record.env, record.env_n)},
         {"env_n", number_view(record.env_n), readers::programs},
         {"enabled", flag_view(record.enabled)}});
}

template <typename record>
static view records_view(record *const *records, uint32_t count, output_format format,
                         view (*of)(const record &, output_format)) {
    return list_view(records, count, [&](const record *one) -> view {
        return one == nullptr ? view{} : of(*one, format);
    });
}

view view_of(const prsr_cfg &record, output_format format) {
    return record_of(
        format,
        {{"sp_name", text_view(record.sp_name)},
         {"alias_ip", text_view(record.alias_ip)},
         {"home", text_view(record.home)},
         {"spfile", text_view(record.spfile)},
         {"db_name", text_view(record.db_name)},
         {"role", text_view(record.role)},
         {"start_options", text_view(record.start_options)},
         {"domain", text_view(record.domain)},
         {"policy", text_view(record.policy)},
         {"enabled", flag_view(record.enabled)},
         {"env", strings_view(record.env, record.env_n)},
         {"env_n", number_view(record.env_n), readers::programs},
         {"instances",
          records_view(record.instances, record.instance_count, format, instance_view)},
         {"instance_count", number_view(record.instance_count), readers::programs},
         {"services", records_view(record.services, record.service_count, format, service_view)},
         {"service_count", number_view(record.service_count), readers::programs},
         {"constant_one", number_view(record.constant_one), readers::programs}});
}

view view_of(const prsr_stg_cfg &record, output_format format) {
    return record_of(format, {{"spfile", text_view(record.spfile)},
                              {"home", text_view(record.home)},
                              {"start_options", text_view(record.start_options)},
                              {"version", text_view(record.version)},
                              {"env", strings_view(record.env, record.env_n)},
                              {"env_n", number_view(record.env_n), readers::programs},
                              {"enabled", flag_view(record.enabled)}});
}

view view_of(const prsr_nodeapps_cfg &record, output_format format) {
    return record_of(format,
                     {{"name", text_view(record.name)},
                      {"home", text_view(record.home)},
                      {"vip", text_view(record.vip)},
                      {"interfaces", text_view(record.interfaces)},
                      {"netmask", text_view(record.netmask)},
                      {"env", strings_view(record.env, record.env_n)},
                      {"env_n", number_view(record.env_n), readers::programs},
                      {"constant_one", number_view(record.constant_one), readers::programs}});
}

}  // namespace keyview::ctl
