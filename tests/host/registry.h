// A registry of its own for each test, with helpers to fill it and to read it through the client.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/entry/backends.h"
#include "host/if/keyview_host.h"
#include "host/support/error.h"
#include "platform/kvtc.h"
#include "platform/lksv.h"
#include "scratch.h"

namespace keyview::test {

using namespace keyview::host;

inline change put(const std::string &path, const std::string &value = "") {
    return {change::kind::put, path, value};
}

inline change removal(const std::string &path) {
    return {change::kind::remove, path, ""};
}

// What a call threw; fails the test if it threw nothing.
template <typename call>
failure failure_of(call &&run, std::string *text = nullptr) {
    try {
        run();
    } catch (const host_error &error) {
        if (text != nullptr) *text = error.what();
        return error.kind;
    }
    ADD_FAILURE() << "nothing was thrown";
    return failure::internal;
}

// An empty registry, chosen for the process.
class RegistryTest : public testing::Test {
  protected:
    RegistryTest() {
        open();
        EXPECT_EQ(keyview_host_set_registry(url.c_str()), 0);
    }
    ~RegistryTest() override {
        (void)keyview_host_set_registry(nullptr);
        (void)keyview_host_set_lock_wait(-1);
    }

    void open() { registry = open_backend(url, open_mode::create); }
    void close() { registry = {}; }
    change_counts apply(const std::vector<change> &changes) {
        return registry.keys->apply(changes);
    }
    std::string stored(const std::string &path) {
        std::string value;
        return registry.keys->now()->read(path, &value) ? value : "(none)";
    }

    scratch_directory scratch;
    std::string directory = scratch.path + "/registry";
    std::string url = "lmdb:" + directory;
    backend registry;
};

// A copy at the very end of memory, until the thread's next one: to read behind it ends the test.
inline const char *at_end_of_memory(const std::string &text) {
    constexpr size_t ROOM = 1 << 20;
    static thread_local char *const END = [] {
        void *memory = mmap(nullptr, 2 * ROOM, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_EQ(mprotect(memory, ROOM, PROT_READ | PROT_WRITE), 0);
        return static_cast<char *>(memory) + ROOM;
    }();
    return static_cast<char *>(memcpy(END - text.size() - 1, text.c_str(), text.size() + 1));
}

// A registry handle of the client, used as a caller does. A code comes back as "(code)".
struct client {
    client() { EXPECT_EQ(kvtc_init_ext(&reg, 3, nullptr, nullptr, 0), 0); }
    ~client() { kvtc_terminate(reg); }

    int32_t open(const std::string &path, void **key) const {
        return kvtc_open_key(reg, key, at_end_of_memory(path));
    }
    static std::string in_words(int32_t rc) { return "(" + std::to_string(rc) + ")"; }

    std::string value_of(void *key) const {
        char value[4096];
        uint32_t size = sizeof(value);
        uint32_t type = 0;
        int32_t rc = kvtc_get_value(reg, key, &type, value, &size);
        return rc == 0 ? std::string(value, size) : in_words(rc);
    }
    std::string read(const std::string &path) const {
        void *key = nullptr;
        int32_t rc = open(path, &key);
        if (rc != 0) return in_words(rc);
        std::string value = value_of(key);
        EXPECT_EQ(kvtc_close_key(reg, key), 0);
        return value;
    }
    int32_t set(const std::string &path, const std::string &value) const {
        void *key = nullptr;
        int32_t rc = open(path, &key);
        auto size = static_cast<uint32_t>(value.size());
        if (rc == 0) rc = kvtc_set_value(reg, key, KVTC_TYPE_STRING, value.data(), size);
        (void)kvtc_close_key(reg, key);
        return rc;
    }

    // The names of all subkeys, each behind its countdown, then the code that ended them with the
    // last countdown: "1:a 0:b (16)0".
    std::string list(const std::string &path) const {
        void *key = nullptr;
        std::string all;
        int32_t rc = open(path, &key);
        for (int32_t last = 0; rc == 0;) {
            char name[2048];
            uint32_t size = sizeof(name);
            rc = kvtc_enum_subkey(reg, key, name, &size, &last);
            all += rc == 0 ? std::to_string(last) + ":" + name + " "
                           : in_words(rc) + std::to_string(last);
        }
        (void)kvtc_close_key(reg, key);
        return all;
    }

    void *reg = nullptr;
};

// A lock service handle.
struct locker {
    locker() {
        const uint16_t version[] = {2, 1};
        EXPECT_EQ(lksvsinit(nullptr, &lk, version, nullptr, 272), 0);
    }
    ~locker() { lksvsterm(nullptr, lk); }

    int32_t take(lock_mode mode, const char *name) const {
        return mode == lock_mode::shared ? lksvlsshrlock(nullptr, lk, name)
                                         : lksvlsmutexlock(nullptr, lk, name);
    }
    int32_t shared(const char *name) const { return take(lock_mode::shared, name); }
    int32_t exclusive(const char *name) const { return take(lock_mode::exclusive, name); }
    int32_t unlock(const char *name) const { return lksvlsunlock(nullptr, lk, name); }

    void *lk = nullptr;
};

}  // namespace keyview::test
