// The records of the tree: their fields, with the key, kind, limit, words and meaning of each, and
// the lists below them. Documents, checks, lint, explain, completion, the manual and the schemas read
// these tables: a new field is a new row here, in the order in which a document is written.
#pragma once

#include <cstddef>
#include <cstdint>

#include "model/path.h"
#include "model/roots.h"
#include "model/words.h"

namespace model {

// A table of constant rows.
template <typename row>
struct rows {
    const row *first = nullptr;
    size_t count = 0;

    constexpr rows() = default;
    template <size_t n>
    constexpr rows(const row (&table)[n]) : first(table), count(n) {}
    constexpr const row *begin() const { return first; }
    constexpr const row *end() const { return first + count; }
};

enum class value_kind {
    text,     // a string with its zero byte
    address,  // the same, but an empty one has no bytes: its reader then reads another key
    word,     // a text, one of the row's words in any case
    flag,     // true or false as a word
    env,      // a list of strings in one value
};

// Readers take most texts into a buffer of this many bytes; their zero byte counts.
inline constexpr uint32_t READER_LIMIT = 1024;
// The limit where readers grow their buffer.
inline constexpr uint32_t GROWING_LIMIT = MAX_VALUE_SIZE;
// The longest path that the readers' blocks hold.
inline constexpr size_t PATH_LIMIT = MAX_PATH_LENGTH;

// The commands that write a key.
inline constexpr char BY_TREE[] = "apply, set";
inline constexpr char BY_FLAG[] = "apply, set, enable, disable";

// In the order in which rows are written.
struct field_row {      // NOLINT(clang-analyzer-optin.performance.Padding)
    const char *field;  // in a document
    const char *key;    // elements below the record's own key
    value_kind kind;
    const char *meaning;
    const char *read_by;                 // the commands that read the key
    uint32_t limit = READER_LIMIT;       // bytes of the stored value
    rows<const char *const> words = {};  // of value_kind::word
    const char *written_by = BY_TREE;
    const char *absence = nullptr;   // what its absence means; null: as usual for the kind
    const char *encoding = nullptr;  // how it is stored; null: as usual for the kind
};

struct record_table;

// Records of one kind under one list key, which itself has an empty value.
struct list_row {
    const char *field;
    const char *key;
    const record_table *record;
    const char *name;  // of a record in a path pattern, such as "<db>"
    const char *meaning, *read_by, *absence;
    const char *type = nullptr;  // the word in each record's KEY_TYPE, if the list is a typed one
};

struct record_table {
    const char *meaning, *read_by;
    rows<field_row> fields = {};
    rows<list_row> lists = {};
    size_t name_limit = PATH_LIMIT + 1;  // bytes of the own value
    bool scoped = false;                 // addressed by "scope" and "name": two elements
    bool dotted_name = false;            // a "." in the name becomes "*" in the element
};

// ---- Of a database ------------------------------------------------------------------------------

inline constexpr field_row INSTANCE_FIELDS[] = {
    {"node",
     KEY_NODE,
     value_kind::text,
     "the node that runs the instance, in lower case",
     "show, status, roster, instance-on",
     READER_LIMIT,
     {},
     BY_TREE,
     "the field of the record is null; \"roster\" and \"instance-on\" fail for the database"},
    {"enabled",
     KEY_ENABLED,
     value_kind::flag,
     "whether the instance is enabled",
     "show, status, enabled",
     READER_LIMIT,
     {},
     BY_FLAG},
    {"env", KEY_ENVIRONMENT, value_kind::env, "the environment of the instance", "show",
     GROWING_LIMIT},
};
inline constexpr record_table INSTANCE = {
    "an instance", "show, status, name, instance-on", INSTANCE_FIELDS, {}, READER_LIMIT};

inline constexpr field_row SERVICE_INSTANCE_FIELDS[] = {
    {"enabled",
     KEY_ENABLED,
     value_kind::flag,
     "whether the service is enabled on the instance",
     "show, status, enabled, supported",
     READER_LIMIT,
     {},
     BY_FLAG},
};
inline constexpr record_table SERVICE_INSTANCE = {"an instance that may run the service",
                                                  "show, status, roster",
                                                  SERVICE_INSTANCE_FIELDS,
                                                  {},
                                                  READER_LIMIT};

inline constexpr field_row SERVICE_FIELDS[] = {
    {"rcn_policy", KEY_RCN_POLICY, value_kind::word, "the failover policy", "show, status, policy",
     READER_LIMIT, RCN_POLICIES, BY_TREE, "the record has 0, \"policy\" prints NONE",
     "NONE, BASIC or PRECONNECT with its zero byte, in any case; AVAILABLE and MUTUAL mean "
     "PRECONNECT"},
    {"enabled",
     KEY_ENABLED,
     value_kind::flag,
     "whether the service is enabled",
     "show, status, enabled",
     READER_LIMIT,
     {},
     BY_FLAG},
    {"env", KEY_ENVIRONMENT, value_kind::env, "the environment of the service", "show",
     GROWING_LIMIT},
};
inline constexpr list_row SERVICE_LISTS[] = {
    {"preferred", KEY_INSTANCES, &SERVICE_INSTANCE, "<instance>",
     "the instances that may run the service, a subkey each",
     "show, status, roster, enable, disable",
     "the record has the service's name only; \"roster\" fails, and so does enabling it",
     TYPE_PREFERRED},
    {"available", KEY_INSTANCES, &SERVICE_INSTANCE, "<instance>", "", "", "", TYPE_AVAILABLE},
};
inline constexpr record_table SERVICE = {"a service; a \".\" in its name is a \"*\" in the key",
                                         "show, status, name",
                                         SERVICE_FIELDS,
                                         SERVICE_LISTS,
                                         PATH_LIMIT + 1,
                                         false,
                                         true};

inline constexpr field_row DATABASE_FIELDS[] = {
    {"alias_ip", KEY_ALIAS_IP, value_kind::text, "the address of the cluster alias", "show"},
    {"home", KEY_HOME, value_kind::text, "the software home", "show"},
    {"spfile", KEY_SPFILE, value_kind::text, "the parameter file", "show"},
    {"db_name", KEY_DB_NAME, value_kind::text, "the database's own name", "show"},
    {"role", KEY_ROLE, value_kind::word, "the role of the database", "show, role, status",
     READER_LIMIT, ROLES, "apply, set, role",
     "the field of the record is null; the role can be neither read nor set"},
    {"start_options", KEY_START_OPTIONS, value_kind::text, "options for a start", "show"},
    {"domain",
     KEY_DOMAIN,
     value_kind::text,
     "the domain",
     "show, domain",
     READER_LIMIT,
     {},
     BY_TREE,
     "the field of the record is null; \"domain\" does not find it"},
    {"policy",
     KEY_POLICY,
     value_kind::text,
     "the management policy; no reader parses it",
     "show",
     READER_LIMIT,
     {},
     BY_TREE,
     "the record has AUTOMATIC"},
    {"enabled",
     KEY_ENABLED,
     value_kind::flag,
     "whether the database is enabled",
     "show, status, enabled",
     READER_LIMIT,
     {},
     BY_FLAG},
    {"env", KEY_ENVIRONMENT, value_kind::env, "the environment of the database", "show",
     GROWING_LIMIT},
};
inline constexpr list_row DATABASE_LISTS[] = {
    {"instances", KEY_INSTANCE, &INSTANCE, "<instance>", "the instances, a subkey each",
     "show, status, instance-on", "the database has no instances; \"instance-on\" fails"},
    {"services", KEY_SERVICE, &SERVICE, "<service>", "the services, a subkey each", "show, status",
     "the database has no services"},
};
inline constexpr record_table DATABASE = {"a database", "list, show, status, name", DATABASE_FIELDS,
                                          DATABASE_LISTS};

// ---- Of a storage manager and of a node ---------------------------------------------------------

inline constexpr char EMPTY_TEXT[] = "the field of the record is an empty text";

inline constexpr field_row STG_FIELDS[] = {
    {"spfile",
     KEY_SPFILE,
     value_kind::text,
     "the parameter file",
     "stg",
     GROWING_LIMIT,
     {},
     BY_TREE,
     EMPTY_TEXT},
    {"home",
     KEY_HOME,
     value_kind::text,
     "the software home",
     "stg",
     GROWING_LIMIT,
     {},
     BY_TREE,
     EMPTY_TEXT},
    {"start_options",
     KEY_START_OPTIONS,
     value_kind::text,
     "options for a start",
     "stg",
     GROWING_LIMIT,
     {},
     BY_TREE,
     EMPTY_TEXT},
    {"version",
     KEY_VERSION,
     value_kind::text,
     "the software version",
     "stg",
     GROWING_LIMIT,
     {},
     BY_TREE,
     EMPTY_TEXT},
    {"enabled",
     KEY_ENABLED,
     value_kind::flag,
     "whether the entry is enabled",
     "stg, stg-enabled",
     READER_LIMIT,
     {},
     BY_TREE,
     "the record has 0; \"stg-enabled\" does not find it"},
    {"env", KEY_ENVIRONMENT, value_kind::env, "the environment of the entry", "stg", GROWING_LIMIT},
};
inline constexpr record_table STG = {
    "a storage manager entry", "stg, stg-name", STG_FIELDS, {}, PATH_LIMIT + 1, true};

inline constexpr field_row NODEAPPS_FIELDS[] = {
    {"home", KEY_HOME, value_kind::text, "the software home", "nodeapps"},
    {"vip", KEY_VIP, value_kind::address,
     "the network address; an empty one sends readers to VIP.IP", "nodeapps"},
    {"vip_ip",
     KEY_VIP_IP,
     value_kind::text,
     "the network address, if VIP is empty",
     "nodeapps",
     READER_LIMIT,
     {},
     BY_TREE,
     EMPTY_TEXT},
    {"netmask", KEY_VIP_NETMASK, value_kind::text, "the netmask", "nodeapps"},
    {"interfaces", KEY_VIP_INTERFACES, value_kind::text, "the network interfaces", "nodeapps"},
    {"env", KEY_ENVIRONMENT, value_kind::env, "the environment of the applications", "nodeapps",
     GROWING_LIMIT},
};
inline constexpr record_table NODEAPPS = {"a node", "nodeapps", NODEAPPS_FIELDS};

// ---- The document -------------------------------------------------------------------------------

// The sections of a document, each with its root.
inline constexpr list_row SECTION_ROWS[] = {
    {"databases", DB_ROOT, &DATABASE, "<db>", "the databases, a subkey each", "list",
     "no databases are listed"},
    {"stg", STG_ROOT, &STG, "<name>", "the storage manager entries, a subkey for each scope", "stg",
     "there are no entries"},
    {"nodeapps", NODEAPPS_ROOT, &NODEAPPS, "<node>", "the nodes with applications, a subkey each",
     "nodeapps", "no node has applications"},
};
inline constexpr rows<list_row> SECTIONS = SECTION_ROWS;

inline constexpr char FORMAT[] = "keyview-cluster";
inline constexpr int VERSION = 1;

}  // namespace model
