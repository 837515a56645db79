// The keys of the configuration tree: its roots, the elements below them, and what each holds.
#pragma once

#include <string_view>

namespace model {

// ---- Roots --------------------------------------------------------------------------------------

inline constexpr char ROOT[] = "DATABASE";
inline constexpr char DB_ROOT[] = "DATABASE.DATABASES";       // .<db>
inline constexpr char STG_ROOT[] = "DATABASE.STG";            // .<scope>.<name>
inline constexpr char NODEAPPS_ROOT[] = "DATABASE.NODEAPPS";  // .<node>

// The history of the tree: a key for each change, beside the tree, that begins so. No operation reads
// it, and no program sets it.
inline constexpr std::string_view HISTORY_HEAD = "keyview-history-";

constexpr bool is_history(std::string_view path) noexcept {
    return path.substr(0, HISTORY_HEAD.size()) == HISTORY_HEAD;
}

// ---- Lists of a record, an element below them for each entry ------------------------------------

inline constexpr char KEY_INSTANCE[] = "INSTANCE";    // the instances of a database
inline constexpr char KEY_SERVICE[] = "SERVICE";      // the services of a database
inline constexpr char KEY_INSTANCES[] = "INSTANCES";  // the instances that a service names

// ---- Fields -------------------------------------------------------------------------------------

inline constexpr char KEY_ENABLED[] = "ENABLED";          // a flag word
inline constexpr char KEY_ENVIRONMENT[] = "ENVIRONMENT";  // a multi-value
inline constexpr char KEY_HOME[] = "TALVEN_HOME";
inline constexpr char KEY_SPFILE[] = "SPFILE";
inline constexpr char KEY_START_OPTIONS[] = "START_OPTIONS";

// Of a database.
inline constexpr char KEY_ALIAS_IP[] = "DB_CLU_ALIAS.IP";
inline constexpr char KEY_DB_NAME[] = "DB_NAME";
inline constexpr char KEY_DOMAIN[] = "DOMAIN";
inline constexpr char KEY_POLICY[] = "POLICY";  // how the database is managed
inline constexpr char KEY_ROLE[] = "ROLE";      // a role word

// Of an instance, of a service, and of an instance that a service names.
inline constexpr char KEY_NODE[] = "NODE";
inline constexpr char KEY_RCN_POLICY[] = "RCNPOLICY";  // a failover policy word
inline constexpr char KEY_TYPE[] = "TYPE";             // a type word

// Of a storage manager entry.
inline constexpr char KEY_VERSION[] = "VERSION";

// Of a node's applications.
inline constexpr char KEY_VIP[] = "VIP";
inline constexpr char KEY_VIP_INTERFACES[] = "VIP.INTERFACES";
inline constexpr char KEY_VIP_IP[] = "VIP.IP";
inline constexpr char KEY_VIP_NETMASK[] = "VIP.NETMASK";

}  // namespace model

namespace keyview {
using namespace model;
}
