// Failover policy words.
#pragma once

#include <stdint.h>

// The code of a stored word, in any case; PRSR_RCN_NONE for every word that is no policy.
[[nodiscard]] int32_t prsr_parse_policy(const char *value);
