// Writes and reads one ENABLED flag.
#include "keyview/enablement/flag.h"

#include <string_view>

#include "keyview/core/registry.h"
#include "model/words.h"
#include "platform/trcd.h"
#include "platform/txt.h"

int32_t prsr_set_enabled_key(prsr_ctx *ctx, const char *key_name, int32_t enabled) {
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_set_enabled_key: entered function");
    const prsr_reader reader(ctx, __func__);
    prsr_key key(ctx->reg);
    if (prsr_open_reported(reader, key_name, &key) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;

    const std::string_view word = enabled != 0 ? model::FLAG_TRUE : model::FLAG_FALSE;
    char value[sizeof model::FLAG_FALSE] = {};
    txtlo(value, word.data());
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_set_enabled_key: Setting value to %s", value);
    const uint32_t size = static_cast<uint32_t>(word.size()) + 1;
    const int32_t kv = kvtc_set_value(ctx->reg, key.handle, KVTC_TYPE_STRING, value, size);
    if (kv != KVTC_SUCCESS) {
        reader.report("kvtc_set_value", key_name, kv);
        return PRSR_ERR_REGISTRY;
    }
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_set_enabled_key: key name [%s] value [%s]", key_name,
               value);
    return PRSR_SUCCESS;
}

int32_t prsr_get_enabled_key(prsr_ctx *ctx, const char *key_name, int32_t *enabled) {
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_enabled_key: ENETERED FUNCTION %s", key_name);
    const prsr_reader reader(ctx, __func__);
    prsr_key key(ctx->reg);
    const int32_t kv = prsr_open_reported(reader, key_name, &key);
    if (kv == KVTC_ERR_KEY_NOT_FOUND) return PRSR_ERR_NO_DATABASE;
    if (kv != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;

    char buffer[VALUE_CAPACITY + 1];
    prsr_value value{buffer, sizeof buffer};
    if (prsr_read_reported(reader, key_name, key, &value) != KVTC_SUCCESS) return PRSR_ERR_REGISTRY;
    const char *word = value.text();
    trcdprintf(ctx->trc, TRCD_PROGRESS, "prsr_get_enabled_key: key name [%s] value [%s]", key_name,
               word);
    key.close();
    *enabled = txtclo(word, model::FLAG_TRUE) == 0 ? 1 : 0;
    return PRSR_SUCCESS;
}
