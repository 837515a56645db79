// The records as callers compile them in: each field at its offset. Nothing runs here; a record
// that moved does not compile.
#include <cstddef>

#include "keyview/if/prsr.h"

template <size_t N>
constexpr bool same(const size_t (&actual)[N], const size_t (&expected)[N]) {
    for (size_t i = 0; i < N; ++i) {
        if (actual[i] != expected[i]) return false;
    }
    return true;
}

#define AT(FIELD) offsetof(prsr_inst_cfg, FIELD)
static_assert(same({AT(node), AT(name), AT(env), AT(env_n), AT(enabled), AT(reserved),
                    sizeof(prsr_inst_cfg)},
                   {0, 8, 16, 24, 28, 32, 40}));
#undef AT
#define AT(FIELD) offsetof(prsr_srv_cfg, FIELD)
static_assert(same({AT(name), AT(available), AT(available_enabled), AT(available_count)},
                   {0, 8, 16, 24}));
static_assert(same({AT(preferred), AT(preferred_enabled), AT(preferred_count), AT(rcn_policy)},
                   {32, 40, 48, 52}));
static_assert(same({AT(env), AT(env_n), AT(enabled), AT(reserved), sizeof(prsr_srv_cfg)},
                   {56, 64, 68, 72, 80}));
#undef AT
#define AT(FIELD) offsetof(prsr_cfg, FIELD)
static_assert(same({AT(tag), AT(sp_name), AT(alias_ip), AT(home), AT(spfile), AT(db_name)},
                   {0, 16, 24, 32, 40, 48}));
static_assert(same({AT(role), AT(start_options), AT(instances), AT(instance_count), AT(services)},
                   {56, 64, 72, 80, 88}));
static_assert(same({AT(service_count), AT(domain), AT(enabled), AT(env), AT(env_n)},
                   {96, 104, 112, 120, 128}));
static_assert(same({AT(constant_one), AT(policy), sizeof(prsr_cfg)}, {132, 136, 144}));
#undef AT
#define AT(FIELD) offsetof(prsr_stg_cfg, FIELD)
static_assert(same({AT(tag), AT(spfile), AT(home), AT(start_options), AT(version), AT(env),
                    AT(env_n), AT(enabled), AT(reserved), sizeof(prsr_stg_cfg)},
                   {0, 16, 24, 32, 40, 48, 56, 60, 64, 72}));
#undef AT
#define AT(FIELD) offsetof(prsr_nodeapps_cfg, FIELD)
static_assert(same({AT(constant_one), AT(tag), AT(name), AT(env), AT(env_n), AT(home), AT(vip),
                    AT(interfaces), AT(netmask), AT(reserved), sizeof(prsr_nodeapps_cfg)},
                   {0, 4, 16, 24, 32, 40, 48, 56, 64, 72, 80}));

static_assert(PRSR_SUCCESS == 0 && PRSR_ERR_ARGUMENT == 1 && PRSR_ERR_MEMORY == 2 &&
              PRSR_ERR_REGISTRY == 3 && PRSR_ERR_CONTEXT == 4 && PRSR_ERR_LOCK == 5 &&
              PRSR_ERR_THREADS == 6 && PRSR_ERR_NO_DATABASE == 7 && PRSR_ERR_NO_STG == 8 &&
              PRSR_ERR_ROLE == 9 && PRSR_ERR_NO_NODEAPPS == 10);
static_assert(PRSR_ROLE_PRIMARY == 0 && PRSR_ROLE_PHYSICAL_STANDBY == 1 &&
              PRSR_ROLE_LOGICAL_STANDBY == 2 && PRSR_ROLE_SNAPSHOT_STANDBY == 3);
static_assert(PRSR_RCN_NONE == 1 && PRSR_RCN_BASIC == 2 && PRSR_RCN_PRECONNECT == 3);
