// Loads the host and the library, and has the steps that all rules share. A rule runs in a process of
// its own, which ends with the first fault.
#include "hosttest/host.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>

#include "hosttest/rules.h"
#include "model/roots.h"

namespace keyview::hosttest {

host_calls host;
library_calls library;

// The first thread that finds a fault tells it.
[[noreturn]] static void end(int verdict, const std::string &why) {
    static std::atomic_flag ended = ATOMIC_FLAG_INIT;
    while (ended.test_and_set())
        (void)pause();
    (void)!write(REPORT_FD, why.data(), why.size());  // without a report the verdict remains
    _exit(verdict);
}

void broken(const std::string &why) {
    end(BROKEN, why);
}

void require(bool holds, const std::string &why) {
    if (!holds) broken(why);
}

void untestable(const std::string &why) {
    end(UNTESTABLE, why);
}

// ---- Loading ------------------------------------------------------------------------------------

static void *load(const char *file) {
    void *handle = dlopen(file, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr) untestable(dlerror());
    return handle;
}

template <typename operation>
static void find(void *handle, const char *name, operation *found) {
    void *address = dlsym(handle, name);
    require(address != nullptr, std::string(name) + " is missing");
    *found = reinterpret_cast<operation>(address);
}

#define KEYVIEW_FIND_IN_HOST(name) find(handle, #name, &host.name);
#define KEYVIEW_FIND_IN_LIBRARY(name) find(handle, #name, &library.name);

void load_host(const char *file) {
    void *handle = load(file);
    KEYVIEW_OUTSIDE_OPERATIONS(KEYVIEW_FIND_IN_HOST)
}

void load_library() {
    void *handle = load(KEYVIEW_LIBRARY);
    KEYVIEW_USED_OPERATIONS(KEYVIEW_FIND_IN_LIBRARY)
}

// ---- The registry -------------------------------------------------------------------------------

void *new_registry() {
    void *reg = nullptr;
    char text[1024] = {};
    uint64_t size = sizeof text;
    int32_t kv = host.kvtc_init_ext(&reg, 3, text, &size, 0);
    text[sizeof text - 1] = '\0';
    require(kv == KVTC_SUCCESS, "kvtc_init_ext returns " + std::to_string(kv) + ": " + text);
    require(reg != nullptr, "kvtc_init_ext makes no handle");
    return reg;
}

void *opened(void *reg, const std::string &path) {
    void *key = nullptr;
    int32_t kv = host.kvtc_open_key(reg, &key, path.c_str());
    require(kv == KVTC_SUCCESS, "opening " + path + " returns " + std::to_string(kv));
    return key;
}

std::string first_database(void *reg) {
    void *key = nullptr;
    char name[2048] = {};
    uint32_t size = sizeof name;
    int32_t last = 0;
    if (host.kvtc_open_key(reg, &key, DB_ROOT) != KVTC_SUCCESS ||
        host.kvtc_enum_subkey(reg, key, name, &size, &last) != KVTC_SUCCESS) {
        untestable("the registry of the host has no database below " + std::string(DB_ROOT));
    }
    (void)host.kvtc_close_key(reg, key);
    return std::string(DB_ROOT) + "." + name;
}

}  // namespace keyview::hosttest
