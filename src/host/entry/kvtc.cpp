// The registry client's C operations: arguments and handles are checked here, the work is
// client.cpp's.
#include "platform/kvtc.h"
#include "host/entry/backends.h"

#include <algorithm>
#include <cstring>

#include "host/registry/client.h"
#include "host/registry/handles.h"
#include "host/support/last_error.h"
#include "platform/trcd.h"

using namespace keyview::host;

static constexpr int32_t MODE = 3;

static handle_table<registry_client, 1> clients;

static void copy_text(std::string_view text, char *buffer, uint64_t capacity) {
    if (buffer == nullptr || capacity == 0) return;
    size_t taken = std::min<size_t>(text.size(), capacity - 1);
    memcpy(buffer, text.data(), taken);
    buffer[taken] = '\0';
}

// Apart from the calls that succeed, which need no array on their stack for it.
[[gnu::noinline]] static int32_t refused(std::string_view text) {
    return fail(BAD_ARGUMENT, {text});
}

[[gnu::noinline]] static int32_t null_pointer() {
    return refused("a pointer of the call is null");
}

template <typename work>
static int32_t with_client(void *reg, work &&body) {
    return at_border([&] {
        registry_client *client = clients.find(reg);
        if (client == nullptr) return refused("this is no live registry handle");
        return body(client);
    });
}

static int32_t make_client(void **reg, int32_t mode, int32_t flags) {
    if (reg == nullptr) return refused("no place is given for the registry handle");
    if (mode != MODE || flags != 0) return refused("the mode must be 3, the flags 0");
    backend registry = open_backend(registry_url(), open_mode::existing);
    void *made = clients.add(std::make_unique<registry_client>(registry));
    if (made == nullptr) return fail(FAILED, {"the process has too many registry handles"});
    *reg = made;
    return KVTC_SUCCESS;
}

// So that a trace shows why there is no registry. The failure stays the thread's latest one.
static void trace_failure() {
    const last_failure kept = thread_failure();
    trcdprintf(nullptr, TRCD_FAILURE, "%s", kept.text);
    thread_failure() = kept;
}

extern "C" {

int32_t kvtc_init_ext(void **reg, int32_t mode, char *error_text, uint64_t *error_size,
                      int32_t flags) {
    int32_t rc = at_border([&] { return make_client(reg, mode, flags); });
    if (rc != KVTC_SUCCESS && error_size != nullptr) {
        copy_text(thread_failure().text, error_text, *error_size);
    }
    if (rc != KVTC_SUCCESS) trace_failure();
    return rc;
}

int32_t kvtc_terminate(void *reg) {
    return at_border([&]() -> int32_t {
        if (clients.remove(reg) != nullptr) return KVTC_SUCCESS;
        return refused("this is no live registry handle");
    });
}

int32_t kvtc_open_key(void *reg, void **key, const char *path) {
    return with_client(reg, [&](registry_client *client) {
        if (key == nullptr || path == nullptr) return null_pointer();
        return client->open(path, key);
    });
}

int32_t kvtc_close_key(void *reg, void *key) {
    return with_client(reg, [&](registry_client *client) { return client->close(key); });
}

int32_t kvtc_get_value(void *reg, void *key, uint32_t *type, void *value, uint32_t *size) {
    return with_client(reg, [&](registry_client *client) {
        if (size == nullptr || (value == nullptr && *size != 0)) return null_pointer();
        if (type != nullptr) *type = KVTC_TYPE_STRING;
        return client->get_value(key, value, size);
    });
}

int32_t kvtc_set_value(void *reg, void *key, uint32_t type, const void *value, uint32_t size) {
    return with_client(reg, [&](registry_client *client) {
        if (value == nullptr && size != 0) return null_pointer();
        if (type != KVTC_TYPE_STRING) return refused("the type of a value must be 3");
        return client->set_value(key, {static_cast<const char *>(value), size});
    });
}

int32_t kvtc_enum_subkey(void *reg, void *key, char *name, uint32_t *size, int32_t *last) {
    return with_client(reg, [&](registry_client *client) {
        if (name == nullptr || size == nullptr || last == nullptr) return null_pointer();
        return client->next_subkey(key, name, size, last);
    });
}

// The failures of a thread are kept together, whatever handle they came from.
int32_t kvtc_get_last_error(void * /*reg*/, int32_t *code, char *message, uint32_t *size) {
    const last_failure &latest = thread_failure();
    if (code != nullptr) *code = latest.code;
    if (size == nullptr) return KVTC_SUCCESS;
    copy_text(latest.text, message, *size);
    *size = std::min(*size, static_cast<uint32_t>(strlen(latest.text)));
    return KVTC_SUCCESS;
}

}  // extern "C"
