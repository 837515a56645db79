// The rows of the document, in the order in which a document is written.
#include "admin/document/fields.h"

namespace keyview::admin {

static constexpr const char *ROLES[] = {"PRIMARY", "PHYSICAL_STANDBY", "LOGICAL_STANDBY",
                                        "SNAPSHOT_STANDBY"};
// The last two are older words for PRECONNECT.
static constexpr const char *RCN_POLICIES[] = {"NONE", "BASIC", "PRECONNECT", "AVAILABLE",
                                               "MUTUAL"};

static constexpr field_row INSTANCE_FIELDS[] = {
    {"node", "NODE", value_kind::text},
    {"enabled", "ENABLED", value_kind::flag},
    {"env", "ENVIRONMENT", value_kind::env, GROWING_LIMIT},
};
static constexpr record_table INSTANCE = {false, false, READER_LIMIT, INSTANCE_FIELDS, {}};

static constexpr field_row SERVICE_INSTANCE_FIELDS[] = {
    {"enabled", "ENABLED", value_kind::flag},
};
static constexpr record_table SERVICE_INSTANCE = {
    false, false, READER_LIMIT, SERVICE_INSTANCE_FIELDS, {}};

static constexpr field_row SERVICE_FIELDS[] = {
    {"rcn_policy", "RCNPOLICY", value_kind::word, READER_LIMIT, RCN_POLICIES},
    {"enabled", "ENABLED", value_kind::flag},
    {"env", "ENVIRONMENT", value_kind::env, GROWING_LIMIT},
};
static constexpr list_row SERVICE_LISTS[] = {
    {"preferred", "INSTANCES", &SERVICE_INSTANCE, "PREFERRED"},
    {"available", "INSTANCES", &SERVICE_INSTANCE, "AVAILABLE"},
};
static constexpr record_table SERVICE = {false, true, PATH_LIMIT + 1, SERVICE_FIELDS,
                                         SERVICE_LISTS};

static constexpr field_row DATABASE_FIELDS[] = {
    {"alias_ip", "DB_CLU_ALIAS.IP", value_kind::text},
    {"home", "TALVEN_HOME", value_kind::text},
    {"spfile", "SPFILE", value_kind::text},
    {"db_name", "DB_NAME", value_kind::text},
    {"role", "ROLE", value_kind::word, READER_LIMIT, ROLES},
    {"start_options", "START_OPTIONS", value_kind::text},
    {"domain", "DOMAIN", value_kind::text},
    {"policy", "POLICY", value_kind::text},
    {"enabled", "ENABLED", value_kind::flag},
    {"env", "ENVIRONMENT", value_kind::env, GROWING_LIMIT},
};
static constexpr list_row DATABASE_LISTS[] = {
    {"instances", "INSTANCE", &INSTANCE},
    {"services", "SERVICE", &SERVICE},
};
constexpr record_table DATABASE = {false, false, PATH_LIMIT + 1, DATABASE_FIELDS, DATABASE_LISTS};

static constexpr field_row STG_FIELDS[] = {
    {"spfile", "SPFILE", value_kind::text, GROWING_LIMIT},
    {"home", "TALVEN_HOME", value_kind::text, GROWING_LIMIT},
    {"start_options", "START_OPTIONS", value_kind::text, GROWING_LIMIT},
    {"version", "VERSION", value_kind::text, GROWING_LIMIT},
    {"enabled", "ENABLED", value_kind::flag},
    {"env", "ENVIRONMENT", value_kind::env, GROWING_LIMIT},
};
static constexpr record_table STG = {true, false, PATH_LIMIT + 1, STG_FIELDS, {}};

static constexpr field_row NODEAPPS_FIELDS[] = {
    {"home", "TALVEN_HOME", value_kind::text},
    {"vip", "VIP", value_kind::address},
    {"vip_ip", "VIP.IP", value_kind::text},
    {"netmask", "VIP.NETMASK", value_kind::text},
    {"interfaces", "VIP.INTERFACES", value_kind::text},
    {"env", "ENVIRONMENT", value_kind::env, GROWING_LIMIT},
};
static constexpr record_table NODEAPPS = {false, false, PATH_LIMIT + 1, NODEAPPS_FIELDS, {}};

static constexpr list_row SECTION_ROWS[] = {
    {"databases", "DATABASE.DATABASES", &DATABASE},
    {"stg", "DATABASE.STG", &STG},
    {"nodeapps", "DATABASE.NODEAPPS", &NODEAPPS},
};
constexpr rows<list_row> SECTIONS = SECTION_ROWS;

}  // namespace keyview::admin
