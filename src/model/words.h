// The words that fields hold, and what they mean.
#pragma once

#include <stdint.h>

namespace model {

// ENABLED. A reader accepts any case.
inline constexpr char FLAG_TRUE[] = "TRUE";
inline constexpr char FLAG_FALSE[] = "FALSE";

// TYPE of an instance that a service names: it runs the service, or takes over. Upper case only.
inline constexpr char TYPE_PREFERRED[] = "PREFERRED";
inline constexpr char TYPE_AVAILABLE[] = "AVAILABLE";

// ROLE of a database, in the order of the codes PRSR_ROLE_*. A reader accepts any case.
inline constexpr const char *ROLES[] = {
    "PRIMARY",
    "PHYSICAL_STANDBY",
    "LOGICAL_STANDBY",
    "SNAPSHOT_STANDBY",
};

// RCNPOLICY of a service, and the code PRSR_RCN_* of each word: the last two are older words for
// PRECONNECT. A reader accepts any case; any other word means NONE.
inline constexpr const char *RCN_POLICIES[] = {
    "NONE", "BASIC", "PRECONNECT", "AVAILABLE", "MUTUAL",
};
inline constexpr int32_t RCN_CODES[] = {1, 2, 3, 3, 3};
static_assert(sizeof RCN_CODES / sizeof *RCN_CODES == sizeof RCN_POLICIES / sizeof *RCN_POLICIES,
              "a code for each word");

// POLICY of a database that stores none.
inline constexpr char DEFAULT_POLICY[] = "AUTOMATIC";

}  // namespace model

namespace keyview {
using namespace model;
}
