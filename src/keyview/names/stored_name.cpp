// Reads a name in its registered case into a caller's buffer.
#include "keyview/names/stored_name.h"

#include <string.h>

int32_t prsr_copy_out(const char *text, uint32_t bufsize, char *buf) {
    const size_t length = strlen(text);
    buf[0] = '\0';
    if (length >= bufsize) return PRSR_ERR_ARGUMENT;
    memcpy(buf, text, length + 1);
    return PRSR_SUCCESS;
}

int32_t prsr_read_stored_name(prsr_ctx *ctx, const char *function, const char *path,
                              int32_t not_found, prsr_key *key, prsr_block *value, uint32_t bufsize,
                              char *buf) {
    const int32_t kv = prsr_open_reported(prsr_reader(ctx, function), path, key);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) return not_found;
    if (kv != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    const int32_t rc = prsr_open_get_value(ctx, path, &value->text);
    if (rc != PRSR_SUCCESS) {
        buf[0] = '\0';
        return rc;
    }
    return prsr_copy_out(value->text, bufsize, buf);
}
