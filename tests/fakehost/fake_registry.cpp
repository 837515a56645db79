// The registry client of the fake host.
#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "fake_host.h"
#include "platform/kvtc.h"

// The end of a registry call. A success forgets the latest failure, so that a failure which is
// reported too late shows.
static int32_t answer(const char *call, const std::string &path, int32_t result) {
    fake_current->failure_code = result == 0 ? 0 : 1000 + result;
    fake_current->failure_text = result == 0 ? "none" : call + (" " + path);
    return fake_current->answered(result);
}

int32_t kvtc_init_ext(void **reg, int32_t mode, char *error_text, uint64_t *error_size,
                      int32_t flags) {
    EXPECT_TRUE(mode == 3 && flags == 0 && *error_size == 1024);
    EXPECT_EQ(std::count(error_text, error_text + 1024, '\0'), 1024);
    int32_t code = fake_current->enter("init", "", "kvtc_init_ext");
    memset(error_text, 'Z', 1023);
    if (code != 0) return answer("init", "", code);
    *reg = *fake_current->registries.insert(&fake_current->handles.emplace_back()).first;
    return 0;
}

int32_t kvtc_terminate(void *reg) {
    int32_t code = fake_current->enter("kvtc_terminate", "", "kvtc_terminate");
    EXPECT_EQ(fake_current->registries.erase(reg), 1u) << "not a registry handle";
    return fake_current->answered(code);
}

int32_t kvtc_open_key(void *reg, void **key, const char *path) {
    EXPECT_EQ(fake_current->registries.count(reg), 1u) << "not a registry handle";
    int32_t code = fake_current->enter("open", path, std::string("open ") + path);
    if (code == 0 && fake_current->values.count(path) == 0) code = KVTC_ERR_KEY_NOT_FOUND;
    if (code == 0) *key = &fake_current->keys.emplace_back(fake_key{path});
    return answer("open", path, code);
}

int32_t kvtc_close_key(void *reg, void *key) {
    fake_key *at = fake_current->key_of(reg, key);
    if (at == nullptr) return 1;
    int32_t code = fake_current->enter("close", at->path, "close" + fake_current->named(at));
    at->open = false;
    return answer("close", at->path, code);
}

// Hands an answer to the caller, bent if the script wants it so.
static int32_t deliver(const fake_key *at, fake_answer *given, void *buffer, uint32_t *size,
                       int32_t *last) {
    const fake_event event = fake_current->events.back();
    if (fake_current->bend) fake_current->bend(event, given);
    memcpy(buffer, given->bytes.data(), std::min<size_t>(given->bytes.size(), given->capacity));
    if (given->result == 0 || given->result == KVTC_ERR_MORE_DATA) *size = given->size;
    if (last != nullptr) *last = given->last;
    return answer(event.call.c_str(), at->path, given->result);
}

int32_t kvtc_get_value(void *reg, void *key, uint32_t *type, void *value, uint32_t *size) {
    fake_key *at = fake_current->key_of(reg, key);
    if (at == nullptr) return 1;
    EXPECT_TRUE(*type == 0 || *type == KVTC_TYPE_STRING);
    *type = 0xEEEEEEEE;
    int32_t code = fake_current->enter(
        "get", at->path, "get" + fake_current->named(at) + " " + std::to_string(*size));
    const std::string &stored = fake_current->values[at->path];
    if (code == 0 && stored.size() > *size) code = KVTC_ERR_MORE_DATA;
    fake_answer given{*size, code, code == 0 ? stored : "", uint32_t(stored.size()), 0};
    return deliver(at, &given, value, size, nullptr);
}

int32_t kvtc_set_value(void *reg, void *key, uint32_t type, const void *value, uint32_t size) {
    fake_key *at = fake_current->key_of(reg, key);
    if (at == nullptr) return 1;
    EXPECT_EQ(type, uint32_t(KVTC_TYPE_STRING));
    std::string bytes(static_cast<const char *>(value), size);
    std::string text = "set" + fake_current->named(at) + " " + fake_escaped(bytes);
    int32_t code = fake_current->enter("set", at->path, text);
    if (code == 0) fake_current->values[at->path] = bytes;
    return answer("set", at->path, code);
}

// What follows a name in the buffer is no one's business, so it is filled with letters.
int32_t kvtc_enum_subkey(void *reg, void *key, char *name, uint32_t *size, int32_t *last) {
    fake_key *at = fake_current->key_of(reg, key);
    if (at == nullptr) return 1;
    int32_t code = fake_current->enter(
        "enum", at->path, "enum" + fake_current->named(at) + " " + std::to_string(*size));
    const std::vector<std::string> &names = fake_current->children[at->path];
    fake_answer given{*size, code, "", 0, *last};
    if (code == 0 && at->cursor >= names.size()) {
        given.result = KVTC_ERR_NO_MORE_KEYS;
        if (names.empty()) given.last = -1;
    } else if (code == 0 && names[at->cursor].size() >= *size) {
        given.result = 1;
    } else if (code == 0) {
        given.size = uint32_t(names[at->cursor].size());
        given.bytes = names[at->cursor] + '\0' + std::string(*size - given.size - 1, 'Z');
        given.last = int32_t(names.size() - ++at->cursor);
    }
    return deliver(at, &given, name, size, last);
}

int32_t kvtc_get_last_error(void *reg, int32_t *code, char *message, uint32_t *size) {
    EXPECT_EQ(fake_current->registries.count(reg), 1u) << "not a registry handle";
    EXPECT_TRUE(message[0] == '\0' && *size == 1024);
    int32_t refused = fake_current->enter("last_error", "", "last_error");
    if (refused != 0) return refused;  // code and message stay as the caller gave them
    memset(message, 'Z', 1024);
    message[fake_current->failure_text.copy(message, 1023)] = '\0';
    *code = fake_current->failure_code;
    return 0;
}
