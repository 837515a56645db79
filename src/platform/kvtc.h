// The registry client: named keys in a tree, each with one value and any number of subkeys.
// Declared here, supplied by the host process. The library is one caller; a host may have others.
//
// Every call returns 0 for success. A code that is not listed below only means failure.
// Handles belong to the registry client; strings and buffers belong to the caller.
#ifndef KEYVIEW_PLATFORM_KVTC_H
#define KEYVIEW_PLATFORM_KVTC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KVTC_SUCCESS = 0,
    KVTC_ERR_KEY_NOT_FOUND = 4,
    KVTC_ERR_MORE_DATA = 9,
    KVTC_ERR_NO_MORE_KEYS = 16,
};

enum {
    KVTC_TYPE_STRING = 3,  // the one value type in use
};

// Makes a registry handle. mode is 3 and flags 0; error_text has *error_size (1024) zeroed bytes
// and may receive a zero-terminated reason.
int32_t kvtc_init_ext(void **reg, int32_t mode, char *error_text, uint64_t *error_size,
                      int32_t flags);

// Ends a handle. Its open keys end with it.
int32_t kvtc_terminate(void *reg);

// Opens the key of a dotted path. KVTC_ERR_KEY_NOT_FOUND if there is none: no key is ever created.
// One key may be open several times at once.
int32_t kvtc_open_key(void *reg, void **key, const char *path);

int32_t kvtc_close_key(void *reg, void *key);

// Copies a key's own value. *size: in, the capacity of value in bytes; out, the value's length, 0
// for an empty one; what lies behind it, up to the capacity, stays or becomes zero. KVTC_ERR_MORE_DATA
// if it does not fit: *size is then the length needed, and the key stays open.
int32_t kvtc_get_value(void *reg, void *key, uint32_t *type, void *value, uint32_t *size);

// Replaces the value of an existing key. size counts a terminating zero byte.
int32_t kvtc_set_value(void *reg, void *key, uint32_t type, const void *value, uint32_t size);

// Delivers the name of the next subkey, zero-terminated. The open key holds the cursor, which
// opening, reading and closing other keys does not move.
//
// size  in, the capacity of name; out, at least the name's length
// last  out, how many subkeys follow the one returned: the number of subkeys less one after the
//       first call, 0 after the final one, negative for a key without subkeys
//
// KVTC_ERR_NO_MORE_KEYS past the final subkey and on a key without subkeys; a name that does not
// fit is a failure.
int32_t kvtc_enum_subkey(void *reg, void *key, char *name, uint32_t *size, int32_t *last);

// Gives code and text of the latest failure. message has *size (1024) bytes, the first one zero.
int32_t kvtc_get_last_error(void *reg, int32_t *code, char *message, uint32_t *size);

#ifdef __cplusplus
}
#endif
#endif
