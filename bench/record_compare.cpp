// Compares records.
#include "bench/record_compare.h"

#include <algorithm>
#include <cstring>

namespace keyview::bench {

static bool same_text(const char *a, const char *b) {
    if (a == nullptr || b == nullptr) return a == b;
    return std::strcmp(a, b) == 0;
}

bool same_list(char *const *a, uint32_t a_count, char *const *b, uint32_t b_count) {
    return std::equal(a, a + a_count, b, b + b_count, same_text);
}

static bool same_flags(const int32_t *a, const int32_t *b, uint32_t count) {
    return std::equal(a, a + count, b);
}

static bool same_instance(const prsr_inst_cfg *a, const prsr_inst_cfg *b) {
    return same_text(a->name, b->name) && same_text(a->node, b->node) && a->enabled == b->enabled &&
           same_list(a->env, a->env_n, b->env, b->env_n);
}

static bool same_service(const prsr_srv_cfg *a, const prsr_srv_cfg *b) {
    return same_text(a->name, b->name) && a->enabled == b->enabled &&
           a->rcn_policy == b->rcn_policy && same_list(a->env, a->env_n, b->env, b->env_n) &&
           same_list(a->preferred, a->preferred_count, b->preferred, b->preferred_count) &&
           same_list(a->available, a->available_count, b->available, b->available_count) &&
           same_flags(a->preferred_enabled, b->preferred_enabled, a->preferred_count) &&
           same_flags(a->available_enabled, b->available_enabled, a->available_count);
}

bool same_record(const prsr_cfg &a, const prsr_cfg &b) {
    const char *const texts[][2] = {
        {a.sp_name, b.sp_name}, {a.alias_ip, b.alias_ip},
        {a.home, b.home},       {a.spfile, b.spfile},
        {a.db_name, b.db_name}, {a.role, b.role},
        {a.domain, b.domain},   {a.start_options, b.start_options},
        {a.policy, b.policy},
    };
    for (const auto &pair : texts)
        if (!same_text(pair[0], pair[1])) return false;
    return a.enabled == b.enabled && same_list(a.env, a.env_n, b.env, b.env_n) &&
           std::equal(a.instances, a.instances + a.instance_count, b.instances,
                      b.instances + b.instance_count, same_instance) &&
           std::equal(a.services, a.services + a.service_count, b.services,
                      b.services + b.service_count, same_service);
}

}  // namespace keyview::bench
