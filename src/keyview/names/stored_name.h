// Copies a stored name into a caller's buffer: whole or not at all.
#pragma once

#include <stdint.h>

#include "keyview/core/memory.h"
#include "keyview/core/registry.h"

// Copies a text with its zero byte into buf of bufsize bytes. Returns PRSR_ERR_ARGUMENT, with buf
// empty, unless the text's length is less than bufsize.
[[nodiscard]] int32_t prsr_copy_out(const char *text, uint32_t bufsize, char *buf);

// Reads the own value of the key at path into buf. A first open of the key, which stays open
// meanwhile, detects a missing key: the result is not_found, with buf untouched.
//
// key, value  the caller's guards: they decide when the key is closed and the block freed
//
// Returns also PRSR_ERR_REGISTRY, PRSR_ERR_MEMORY and the codes of prsr_copy_out.
[[nodiscard]] int32_t prsr_read_stored_name(prsr_ctx *ctx, const char *function, const char *path,
                                            int32_t not_found, prsr_key *key, prsr_block *value,
                                            uint32_t bufsize, char *buf);
