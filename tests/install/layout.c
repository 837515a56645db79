// The public records and codes as callers compile them in: each field with its offset and size, each
// code with its value, on machines with 64-bit pointers. Nothing runs here; a record that changed does
// not compile. Compiled as each C and C++ that the headers promise (packaging/header-check).
#include <keyview/keyview_host.h>
#include <keyview/keyview_registry.h>
#include <keyview/platform/kvtc.h>
#include <keyview/platform/lksv.h>
#include <keyview/platform/tmem.h>
#include <keyview/platform/trcd.h>
#include <keyview/platform/txt.h>
#include <keyview/prsr.h>
#include <stddef.h>

// C99 has no assertions at compile time, but refuses an array of negative size.
#define HOLDS(NAME, CONDITION) typedef char NAME[(CONDITION) ? 1 : -1]
// A member of RECORD, at this offset with this size.
#define AT(MEMBER, OFFSET, SIZE) \
    (offsetof(RECORD, MEMBER) == (OFFSET) && sizeof(((RECORD *)0)->MEMBER) == (SIZE))
#define VALUE(NAME, NUMBER) HOLDS(value_of_##NAME, (NAME) == (NUMBER))

#define RECORD prsr_inst_cfg
HOLDS(layout_of_prsr_inst_cfg, sizeof(prsr_inst_cfg) == 40 && AT(node, 0, 8) && AT(name, 8, 8) &&
                                   AT(env, 16, 8) && AT(env_n, 24, 4) && AT(enabled, 28, 4) &&
                                   AT(reserved, 32, 8));
#undef RECORD

#define RECORD prsr_srv_cfg
HOLDS(layout_of_prsr_srv_cfg,
      sizeof(prsr_srv_cfg) == 80 && AT(name, 0, 8) && AT(available, 8, 8) &&
          AT(available_enabled, 16, 8) && AT(available_count, 24, 4) && AT(preferred, 32, 8) &&
          AT(preferred_enabled, 40, 8) && AT(preferred_count, 48, 4) && AT(rcn_policy, 52, 4) &&
          AT(env, 56, 8) && AT(env_n, 64, 4) && AT(enabled, 68, 4) && AT(reserved, 72, 8));
#undef RECORD

#define RECORD prsr_cfg
HOLDS(layout_of_prsr_cfg, sizeof(prsr_cfg) == 144 && AT(tag, 0, 16) && AT(sp_name, 16, 8) &&
                              AT(alias_ip, 24, 8) && AT(home, 32, 8) && AT(spfile, 40, 8) &&
                              AT(db_name, 48, 8) && AT(role, 56, 8) && AT(start_options, 64, 8) &&
                              AT(instances, 72, 8) && AT(instance_count, 80, 4) &&
                              AT(services, 88, 8) && AT(service_count, 96, 4) &&
                              AT(domain, 104, 8) && AT(enabled, 112, 4) && AT(env, 120, 8) &&
                              AT(env_n, 128, 4) && AT(constant_one, 132, 4) && AT(policy, 136, 8));
#undef RECORD

#define RECORD prsr_stg_cfg
HOLDS(layout_of_prsr_stg_cfg, sizeof(prsr_stg_cfg) == 72 && AT(tag, 0, 16) && AT(spfile, 16, 8) &&
                                  AT(home, 24, 8) && AT(start_options, 32, 8) &&
                                  AT(version, 40, 8) && AT(env, 48, 8) && AT(env_n, 56, 4) &&
                                  AT(enabled, 60, 4) && AT(reserved, 64, 8));
#undef RECORD

#define RECORD prsr_nodeapps_cfg
HOLDS(layout_of_prsr_nodeapps_cfg,
      sizeof(prsr_nodeapps_cfg) == 80 && AT(constant_one, 0, 4) && AT(tag, 4, 12) &&
          AT(name, 16, 8) && AT(env, 24, 8) && AT(env_n, 32, 4) && AT(home, 40, 8) &&
          AT(vip, 48, 8) && AT(interfaces, 56, 8) && AT(netmask, 64, 8) && AT(reserved, 72, 8));
#undef RECORD

#define RECORD keyview_bytes
HOLDS(layout_of_keyview_bytes, sizeof(keyview_bytes) == 16 && AT(data, 0, 8) && AT(size, 8, 8));
#undef RECORD

#define RECORD keyview_part
HOLDS(layout_of_keyview_part, sizeof(keyview_part) == 24 && AT(path, 0, 16) && AT(depth, 16, 4));
#undef RECORD

#define RECORD keyview_change
HOLDS(layout_of_keyview_change,
      sizeof(keyview_change) == 40 && AT(path, 0, 16) && AT(value, 16, 16) && AT(remove, 32, 4));
#undef RECORD

VALUE(PRSR_SUCCESS, 0);
VALUE(PRSR_ERR_ARGUMENT, 1);
VALUE(PRSR_ERR_MEMORY, 2);
VALUE(PRSR_ERR_REGISTRY, 3);
VALUE(PRSR_ERR_CONTEXT, 4);
VALUE(PRSR_ERR_LOCK, 5);
VALUE(PRSR_ERR_THREADS, 6);
VALUE(PRSR_ERR_NO_DATABASE, 7);
VALUE(PRSR_ERR_NO_STG, 8);
VALUE(PRSR_ERR_ROLE, 9);
VALUE(PRSR_ERR_NO_NODEAPPS, 10);
VALUE(PRSR_ROLE_PRIMARY, 0);
VALUE(PRSR_ROLE_PHYSICAL_STANDBY, 1);
VALUE(PRSR_ROLE_LOGICAL_STANDBY, 2);
VALUE(PRSR_ROLE_SNAPSHOT_STANDBY, 3);
VALUE(PRSR_RCN_NONE, 1);
VALUE(PRSR_RCN_BASIC, 2);
VALUE(PRSR_RCN_PRECONNECT, 3);
VALUE(KEYVIEW_FAILURE_USAGE, 1);
VALUE(KEYVIEW_FAILURE_NOT_FOUND, 2);
VALUE(KEYVIEW_FAILURE_REGISTRY, 3);
VALUE(KEYVIEW_FAILURE_LOCK, 4);
VALUE(KEYVIEW_FAILURE_CHANGED, 5);
VALUE(KEYVIEW_FAILURE_DENIED, 6);
VALUE(KEYVIEW_FAILURE_CONTENT, 7);
VALUE(KEYVIEW_FAILURE_INTERNAL, 8);
VALUE(KEYVIEW_DEPTH_KEY, 0);
VALUE(KEYVIEW_DEPTH_CHILDREN, 1);
VALUE(KEYVIEW_DEPTH_ALL, 2);
VALUE(KEYVIEW_HEALTH_GOOD, 0);
VALUE(KEYVIEW_HEALTH_DOUBTFUL, 1);
VALUE(KEYVIEW_HEALTH_BAD, 2);
VALUE(KVTC_SUCCESS, 0);
VALUE(KVTC_ERR_KEY_NOT_FOUND, 4);
VALUE(KVTC_ERR_MORE_DATA, 9);
VALUE(KVTC_ERR_NO_MORE_KEYS, 16);
VALUE(KVTC_TYPE_STRING, 3);
VALUE(TRCD_FAILURE, 0);
VALUE(TRCD_REGISTRATION, 2);
VALUE(TRCD_PROGRESS, 4);
