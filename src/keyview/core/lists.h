// Registry lists as arrays of strings: the subkeys of a key, the own values of such subkeys, and
// the strings of a multi-value. The caller owns what a reader returns. No reader takes a lock.
#pragma once

#include <stdint.h>

#include "keyview/core/context.h"

// Lists the subkeys of a key in the order of the enumeration.
//
// list   out; null for a key without subkeys and after a failure, untouched if the key does not
//        open
// count  out; 0 unless all subkeys were read
//
// A key that does not open has no subkeys: PRSR_SUCCESS.
// Returns PRSR_ERR_REGISTRY if the enumeration fails or ends early; PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_get_subkeys(const prsr_ctx *ctx, const char *inkey_name, char ***list,
                                       uint32_t *count);

// Reads the own values of count subkeys of a key: their names in registered case.
//
// values  count null slots of the caller's. After a failure they hold the values before it.
//
// Returns PRSR_ERR_REGISTRY if one cannot be read; PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_get_case_preserved_names(const prsr_ctx *ctx, const char *inkey_name,
                                                    char *const *names, uint32_t count,
                                                    char **values);

// Splits a multi-value. A missing key, an unreadable value and a single string without the extra
// zero byte are an empty list.
//
// list   out; null for an empty list, untouched if the key does not open or the value cannot be
//        read
// count  out; a string missing in the middle of the value leaves null slots at the end
//
// Returns PRSR_ERR_MEMORY.
[[nodiscard]] int32_t prsr_get_multivalues(const prsr_ctx *ctx, const char *inkey_name,
                                           char ***list, uint32_t *count);
