// Builds the views of record_view.h.
#include "ctl/record_view.h"

#include <initializer_list>
#include <iterator>
#include <utility>

#include "ctl/text.h"
#include "model/words.h"

namespace keyview::ctl {

view policy_view(prsr::failover policy) {
    const auto code = static_cast<int32_t>(policy);
    std::string word = code == 0 ? "-" : std::to_string(code);
    for (size_t n = std::size(RCN_CODES); n-- > 0;)
        if (RCN_CODES[n] == code) word = RCN_POLICIES[n];  // the first word of a code
    return {coded{code, word}};
}

namespace {
enum class readers { all, people, programs };

struct record_field {
    const char *name;
    mutable view shown;  // moved out of the list that has the field
    readers readers_of_it = readers::all;
};
}  // namespace

static view record_of(output_format format, std::initializer_list<record_field> fields) {
    readers hidden = format == output_format::table ? readers::programs : readers::people;
    view_fields shown;
    for (const record_field &field : fields)
        if (field.readers_of_it != hidden) shown.emplace_back(field.name, std::move(field.shown));
    return {std::move(shown)};
}

static view strings_view(const prsr::string_list &strings) {
    return list_view(strings, text_view);
}

// "sales1, enabled": one line for people.
static view instances_view(const prsr::service_instance_list &instances) {
    return list_view(instances, [](const prsr::service_instance &one) -> view {
        return {text_or_dash(one.name) + (one.enabled ? ", enabled" : ", disabled")};
    });
}

static view names_view(const prsr::service_instance_list &instances) {
    return list_view(instances,
                     [](const prsr::service_instance &one) { return text_view(one.name); });
}

static view flags_view(const prsr::service_instance_list &instances) {
    return list_view(instances,
                     [](const prsr::service_instance &one) { return flag_view(one.enabled); });
}

static view instance_view(const prsr::instance &record, output_format format) {
    return record_of(format, {{"name", text_view(record.name())},
                              {"node", text_view(record.node())},
                              {"env", strings_view(record.env())},
                              {"env_n", number_view(record.env().size()), readers::programs},
                              {"enabled", flag_view(record.enabled())}});
}

static view service_view(const prsr::service &record, output_format format) {
    const prsr::service_instance_list preferred = record.preferred(),
                                      available = record.available();
    const bool people = format == output_format::table;
    auto of = [](bool wanted, view (*made)(const prsr::service_instance_list &),
                 const prsr::service_instance_list &list) { return wanted ? made(list) : view{}; };
    return record_of(format,
                     {{"name", text_view(record.name())},
                      {"preferred", of(people, instances_view, preferred), readers::people},
                      {"available", of(people, instances_view, available), readers::people},
                      {"available", of(!people, names_view, available), readers::programs},
                      {"available_enabled", of(!people, flags_view, available), readers::programs},
                      {"available_count", number_view(available.size()), readers::programs},
                      {"preferred", of(!people, names_view, preferred), readers::programs},
                      {"preferred_enabled", of(!people, flags_view, preferred), readers::programs},
                      {"preferred_count", number_view(preferred.size()), readers::programs},
                      {"rcn_policy", policy_view(record.rcn_policy())},
                      {"env", strings_view(record.env())},
                      {"env_n", number_view(record.env().size()), readers::programs},
                      {"enabled", flag_view(record.enabled())}});
}

template <typename records, typename record>
static view records_view(const records &listed, output_format format,
                         view (*of)(const record &, output_format)) {
    return list_view(listed, [&](const record &one) { return of(one, format); });
}

view view_of(const prsr::database &record, output_format format) {
    return record_of(
        format, {{"sp_name", text_view(record.sp_name())},
                 {"alias_ip", text_view(record.alias_ip())},
                 {"home", text_view(record.home())},
                 {"spfile", text_view(record.spfile())},
                 {"db_name", text_view(record.db_name())},
                 {"role", text_view(record.role())},
                 {"start_options", text_view(record.start_options())},
                 {"domain", text_view(record.domain())},
                 {"policy", text_view(record.policy())},
                 {"enabled", flag_view(record.enabled())},
                 {"env", strings_view(record.env())},
                 {"env_n", number_view(record.env().size()), readers::programs},
                 {"instances", records_view(record.instances(), format, instance_view)},
                 {"instance_count", number_view(record.instances().size()), readers::programs},
                 {"services", records_view(record.services(), format, service_view)},
                 {"service_count", number_view(record.services().size()), readers::programs},
                 {"constant_one", number_view(record.get()->constant_one), readers::programs}});
}

view view_of(const prsr::storage_manager &record, output_format format) {
    return record_of(format, {{"spfile", text_view(record.spfile())},
                              {"home", text_view(record.home())},
                              {"start_options", text_view(record.start_options())},
                              {"version", text_view(record.version())},
                              {"env", strings_view(record.env())},
                              {"env_n", number_view(record.env().size()), readers::programs},
                              {"enabled", flag_view(record.enabled())}});
}

view view_of(const prsr::node_applications &record, output_format format) {
    return record_of(
        format, {{"name", text_view(record.name())},
                 {"home", text_view(record.home())},
                 {"vip", text_view(record.vip())},
                 {"interfaces", text_view(record.interfaces())},
                 {"netmask", text_view(record.netmask())},
                 {"env", strings_view(record.env())},
                 {"env_n", number_view(record.env().size()), readers::programs},
                 {"constant_one", number_view(record.get()->constant_one), readers::programs}});
}

}  // namespace keyview::ctl
