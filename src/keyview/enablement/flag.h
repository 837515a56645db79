// The two primitives of an ENABLED flag, found by the complete path of its key. Neither tests ctx
// or takes a lock.
#pragma once

#include <stdint.h>

#include "keyview/core/context.h"

// Writes a flag: "true" or "false". Returns PRSR_ERR_REGISTRY, for a missing key as well.
[[nodiscard]] int32_t prsr_set_enabled_key(prsr_ctx *ctx, const char *key_name, int32_t enabled);

// Reads a flag.
//
// enabled  out, 1 if the stored word is TRUE in any case, else 0; written on PRSR_SUCCESS only
//
// Returns PRSR_ERR_NO_DATABASE if the key is missing; PRSR_ERR_REGISTRY.
[[nodiscard]] int32_t prsr_get_enabled_key(prsr_ctx *ctx, const char *key_name, int32_t *enabled);
