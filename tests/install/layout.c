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
#define RECORD(NAME, SIZE) HOLDS(size_of_##NAME, sizeof(NAME) == (SIZE))
#define FIELD(NAME, MEMBER, OFFSET, SIZE) \
    HOLDS(NAME##_##MEMBER,                \
          offsetof(NAME, MEMBER) == (OFFSET) && sizeof(((NAME *)0)->MEMBER) == (SIZE))
#define VALUE(NAME, NUMBER) HOLDS(value_of_##NAME, (NAME) == (NUMBER))

RECORD(prsr_inst_cfg, 40);
FIELD(prsr_inst_cfg, node, 0, 8);
FIELD(prsr_inst_cfg, name, 8, 8);
FIELD(prsr_inst_cfg, env, 16, 8);
FIELD(prsr_inst_cfg, env_n, 24, 4);
FIELD(prsr_inst_cfg, enabled, 28, 4);
FIELD(prsr_inst_cfg, reserved, 32, 8);

RECORD(prsr_srv_cfg, 80);
FIELD(prsr_srv_cfg, name, 0, 8);
FIELD(prsr_srv_cfg, available, 8, 8);
FIELD(prsr_srv_cfg, available_enabled, 16, 8);
FIELD(prsr_srv_cfg, available_count, 24, 4);
FIELD(prsr_srv_cfg, preferred, 32, 8);
FIELD(prsr_srv_cfg, preferred_enabled, 40, 8);
FIELD(prsr_srv_cfg, preferred_count, 48, 4);
FIELD(prsr_srv_cfg, rcn_policy, 52, 4);
FIELD(prsr_srv_cfg, env, 56, 8);
FIELD(prsr_srv_cfg, env_n, 64, 4);
FIELD(prsr_srv_cfg, enabled, 68, 4);
FIELD(prsr_srv_cfg, reserved, 72, 8);

RECORD(prsr_cfg, 144);
FIELD(prsr_cfg, tag, 0, 16);
FIELD(prsr_cfg, sp_name, 16, 8);
FIELD(prsr_cfg, alias_ip, 24, 8);
FIELD(prsr_cfg, home, 32, 8);
FIELD(prsr_cfg, spfile, 40, 8);
FIELD(prsr_cfg, db_name, 48, 8);
FIELD(prsr_cfg, role, 56, 8);
FIELD(prsr_cfg, start_options, 64, 8);
FIELD(prsr_cfg, instances, 72, 8);
FIELD(prsr_cfg, instance_count, 80, 4);
FIELD(prsr_cfg, services, 88, 8);
FIELD(prsr_cfg, service_count, 96, 4);
FIELD(prsr_cfg, domain, 104, 8);
FIELD(prsr_cfg, enabled, 112, 4);
FIELD(prsr_cfg, env, 120, 8);
FIELD(prsr_cfg, env_n, 128, 4);
FIELD(prsr_cfg, constant_one, 132, 4);
FIELD(prsr_cfg, policy, 136, 8);

RECORD(prsr_stg_cfg, 72);
FIELD(prsr_stg_cfg, tag, 0, 16);
FIELD(prsr_stg_cfg, spfile, 16, 8);
FIELD(prsr_stg_cfg, home, 24, 8);
FIELD(prsr_stg_cfg, start_options, 32, 8);
FIELD(prsr_stg_cfg, version, 40, 8);
FIELD(prsr_stg_cfg, env, 48, 8);
FIELD(prsr_stg_cfg, env_n, 56, 4);
FIELD(prsr_stg_cfg, enabled, 60, 4);
FIELD(prsr_stg_cfg, reserved, 64, 8);

RECORD(prsr_nodeapps_cfg, 80);
FIELD(prsr_nodeapps_cfg, constant_one, 0, 4);
FIELD(prsr_nodeapps_cfg, tag, 4, 12);
FIELD(prsr_nodeapps_cfg, name, 16, 8);
FIELD(prsr_nodeapps_cfg, env, 24, 8);
FIELD(prsr_nodeapps_cfg, env_n, 32, 4);
FIELD(prsr_nodeapps_cfg, home, 40, 8);
FIELD(prsr_nodeapps_cfg, vip, 48, 8);
FIELD(prsr_nodeapps_cfg, interfaces, 56, 8);
FIELD(prsr_nodeapps_cfg, netmask, 64, 8);
FIELD(prsr_nodeapps_cfg, reserved, 72, 8);

RECORD(keyview_bytes, 16);
FIELD(keyview_bytes, data, 0, 8);
FIELD(keyview_bytes, size, 8, 8);

RECORD(keyview_part, 24);
FIELD(keyview_part, path, 0, 16);
FIELD(keyview_part, depth, 16, 4);

RECORD(keyview_change, 40);
FIELD(keyview_change, path, 0, 16);
FIELD(keyview_change, value, 16, 16);
FIELD(keyview_change, remove, 32, 4);

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
