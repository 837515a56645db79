// The registry client. The rules use the first database that the registry lists, write its ENABLED
// key under the lock of the database, and write back what was there.
#include <algorithm>
#include <cstring>
#include <set>
#include <string>

#include "hosttest/host.h"
#include "hosttest/locks.h"
#include "hosttest/rules.h"
#include "model/locks.h"
#include "model/roots.h"
#include "model/words.h"

namespace keyview::hosttest {

// As a registry stores it: with its zero byte.
static std::string word(const char *text) {
    return {text, strlen(text) + 1};
}

static std::string subkey_of(const std::string &path, const std::string &name) {
    return path + "." + name;
}

static std::string flag_of(const std::string &database) {
    return subkey_of(database, KEY_ENABLED);
}

static std::string value_of(void *reg, const std::string &path) {
    void *key = opened(reg, path);
    std::string value(4096, '\0');
    uint32_t type = 0;
    auto size = static_cast<uint32_t>(value.size());
    int32_t kv = host.kvtc_get_value(reg, key, &type, value.data(), &size);
    require(kv == KVTC_SUCCESS, "reading " + path + " returns " + std::to_string(kv));
    require(size <= value.size(), "reading " + path + " reports a size above the capacity");
    require(type == KVTC_TYPE_STRING, "the type of " + path + " is " + std::to_string(type));
    require(host.kvtc_close_key(reg, key) == KVTC_SUCCESS, "kvtc_close_key fails");
    value.resize(size);
    return value;
}

static void set_value(void *reg, const std::string &path, const std::string &value) {
    void *key = opened(reg, path);
    int32_t kv = host.kvtc_set_value(reg, key, KVTC_TYPE_STRING, value.data(),
                                     static_cast<uint32_t>(value.size()));
    require(kv == KVTC_SUCCESS, "setting " + path + " returns " + std::to_string(kv));
    (void)host.kvtc_close_key(reg, key);
}

static int32_t next_subkey(void *reg, void *key, std::string *name, int32_t *last) {
    char buffer[2048] = {};
    uint32_t size = sizeof buffer;
    int32_t kv = host.kvtc_enum_subkey(reg, key, buffer, &size, last);
    if (kv != KVTC_SUCCESS) return kv;
    require(memchr(buffer, '\0', sizeof buffer) != nullptr, "a name has no zero byte");
    *name = buffer;
    require(size >= name->size(), "the reported length of \"" + *name + "\" is shorter");
    return kv;
}

// ---- Opening ------------------------------------------------------------------------------------

static void handles() {
    void *first = new_registry();
    void *second = new_registry();
    require(first != second, "two calls of kvtc_init_ext make the same handle");
    const std::string path = first_database(first);
    require(host.kvtc_terminate(first) == KVTC_SUCCESS, "kvtc_terminate fails");
    (void)value_of(second, path);
    for (int n = 0; n < 100; ++n)
        (void)host.kvtc_terminate(new_registry());
}

static void missing_key() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    for (const std::string &missing :
         {path + ".NO_SUCH_KEY", path + "x", path.substr(0, path.size() - 1),
          std::string("NO_SUCH_ROOT"), path + ".NO.SUCH.KEY"}) {
        for (int again = 0; again < 2; ++again) {
            void *key = nullptr;
            int32_t kv = host.kvtc_open_key(reg, &key, missing.c_str());
            require(kv == KVTC_ERR_KEY_NOT_FOUND,
                    "opening " + missing + " returns " + std::to_string(kv));
        }
    }
}

static void key_opened_twice() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    const std::string value = value_of(reg, path);
    void *first = opened(reg, path);
    void *second = opened(reg, path);
    require(host.kvtc_close_key(reg, first) == KVTC_SUCCESS, "kvtc_close_key fails");
    std::string again(value.size(), '\0');
    uint32_t type = 0;
    auto size = static_cast<uint32_t>(again.size());
    int32_t kv = host.kvtc_get_value(reg, second, &type, again.data(), &size);
    require(kv == KVTC_SUCCESS && again == value, "after closing one, the other cannot be read");
}

static void open_keys_at_end() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    for (int n = 0; n < 10; ++n)
        (void)opened(reg, path);
    require(host.kvtc_terminate(reg) == KVTC_SUCCESS, "kvtc_terminate fails with open keys");
    (void)value_of(new_registry(), path);
}

// ---- Values -------------------------------------------------------------------------------------

// Reads a value with each capacity around its length, into a buffer whose end is marked.
static void value_sizes() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    const std::string value = value_of(reg, path);
    const auto length = static_cast<uint32_t>(value.size());
    if (length < 2) untestable("the value of " + path + " is empty");
    void *key = opened(reg, path);
    for (uint32_t capacity = 0; capacity <= length + 2; ++capacity) {
        std::string buffer(length + 64, '#');
        uint32_t type = 0;
        uint32_t size = capacity;
        int32_t kv = host.kvtc_get_value(reg, key, &type, buffer.data(), &size);
        const std::string which = "a value of " + std::to_string(length) + " bytes, read into " +
                                  std::to_string(capacity) + ", ";
        int32_t expected = capacity < length ? KVTC_ERR_MORE_DATA : KVTC_SUCCESS;
        require(kv == expected, which + "returns " + std::to_string(kv));
        require(size == length, which + "reports " + std::to_string(size));
        require(buffer.find_first_not_of('#', capacity) == std::string::npos,
                which + "is written beyond the capacity");
        if (kv == KVTC_SUCCESS) require(buffer.substr(0, length) == value, which + "differs");
    }
}

static void values_are_kept() {
    void *reg = new_registry();
    const std::string database = first_database(reg);
    const std::string path = flag_of(database);
    held_lock lock(database);
    const std::string before = value_of(reg, path);
    std::string bytes;
    for (int n = 0; n < 1024; ++n)
        bytes += static_cast<char>(n);
    for (const std::string &value : {bytes, word("x"), word(FLAG_FALSE)}) {
        set_value(reg, path, value);
        require(value_of(reg, path) == value,
                "a value of " + std::to_string(value.size()) + " bytes is read with other bytes");
    }
    set_value(reg, path, before);
}

static void values_are_shared() {
    void *writer = new_registry();
    void *reader = new_registry();
    const std::string database = first_database(writer);
    const std::string path = flag_of(database);
    const std::string before = value_of(writer, path);
    for (const std::string &value : {word(FLAG_FALSE), before}) {
        {
            held_lock lock(database);
            set_value(writer, path, value);
        }
        require(value_of(reader, path) == value, "another handle reads the old value");
    }
}

// ---- Subkeys ------------------------------------------------------------------------------------

static void all_subkeys() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    void *key = opened(reg, path);
    std::set<std::string> seen;
    std::string name;
    int32_t last = 0;
    while (next_subkey(reg, key, &name, &last) == KVTC_SUCCESS) {
        require(seen.insert(name).second, "\"" + name + "\" is delivered twice");
        require(name.find('.') == std::string::npos, "\"" + name + "\" is no single element");
        (void)host.kvtc_close_key(reg, opened(reg, subkey_of(path, name)));
    }
    require(seen.count(KEY_ENABLED) == 1, flag_of(path) + " is not delivered");
    int32_t kv = next_subkey(reg, key, &name, &last);
    require(kv == KVTC_ERR_NO_MORE_KEYS, "past the final one, it returns " + std::to_string(kv));
}

static void subkeys_that_follow() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    void *counted = opened(reg, path);
    void *key = opened(reg, path);
    std::string name;
    int32_t last = 0;
    int32_t count = 0;
    while (next_subkey(reg, counted, &name, &last) == KVTC_SUCCESS)
        ++count;
    for (int32_t n = 1; n <= count; ++n) {
        (void)next_subkey(reg, key, &name, &last);
        require(last == count - n, "at number " + std::to_string(n) + " of " +
                                       std::to_string(count) + ", last is " + std::to_string(last));
    }
}

static void no_subkeys() {
    void *reg = new_registry();
    void *key = opened(reg, flag_of(first_database(reg)));
    std::string name;
    int32_t last = 0;
    int32_t kv = next_subkey(reg, key, &name, &last);
    require(kv == KVTC_ERR_NO_MORE_KEYS, "it returns " + std::to_string(kv));
    require(last < 0, "last is " + std::to_string(last));
}

static void cursor_of_key() {
    void *reg = new_registry();
    const std::string path = first_database(reg);
    void *alone = opened(reg, path);
    void *key = opened(reg, path);
    std::string expected, name;
    int32_t last = 0;
    while (next_subkey(reg, alone, &expected, &last) == KVTC_SUCCESS) {
        int32_t kv = next_subkey(reg, key, &name, &last);
        require(kv == KVTC_SUCCESS && name == expected,
                "another name is delivered than " + expected);
        void *other = opened(reg, path);
        (void)next_subkey(reg, other, &name, &last);
        (void)value_of(reg, subkey_of(path, expected));
        char own[64];
        uint32_t type = 0, size = sizeof own;
        (void)host.kvtc_get_value(reg, key, &type, own, &size);
        (void)host.kvtc_close_key(reg, other);
    }
}

static void short_name_buffer() {
    void *reg = new_registry();
    void *key = opened(reg, first_database(reg));
    char buffer[16];
    memset(buffer, '#', sizeof buffer);
    uint32_t size = 2;
    int32_t last = 0;
    int32_t kv = host.kvtc_enum_subkey(reg, key, buffer, &size, &last);
    require(kv != KVTC_SUCCESS, "it returns 0 for a buffer of 2 bytes");
    require(std::count(buffer + 2, buffer + sizeof buffer, '#') == sizeof buffer - 2,
            "bytes beyond the capacity are written");
}

// ---- Failures -----------------------------------------------------------------------------------

static void latest_failure() {
    void *reg = new_registry();
    void *key = nullptr;
    (void)host.kvtc_open_key(reg, &key, "NO_SUCH_ROOT");
    char message[1024 + 8];
    memset(message, '#', sizeof message);
    memset(message, 0, 1024);
    uint32_t size = 1024;
    int32_t code = 0;
    int32_t kv = host.kvtc_get_last_error(reg, &code, message, &size);
    require(kv == KVTC_SUCCESS, "it returns " + std::to_string(kv));
    require(code != 0, "the code is 0");
    require(message[0] != '\0', "the text is empty");
    require(memchr(message, '\0', 1024) != nullptr, "the text has no zero byte");
    require(message[1024] == '#', "more than 1,024 bytes are written");
}

std::vector<rule> registry_rules() {
    return {
        {"registry", "kvtc_init_ext makes any number of handles, each with its own end", handles},
        {"open-missing",
         "kvtc_open_key returns 4 for a key that is not there, and never creates it", missing_key},
        {"open-twice", "one key may be open several times, each with its own end",
         key_opened_twice},
        {"open-at-end", "kvtc_terminate ends the open keys of its handle", open_keys_at_end},
        {"value-size",
         "kvtc_get_value never writes beyond the capacity, returns 9 if the value does "
         "not fit, and always reports its length",
         value_sizes},
        {"value-kept",
         "kvtc_set_value keeps any bytes, and a shorter value replaces all of a longer one",
         values_are_kept},
        {"value-shared", "what one handle sets, the next read through another one returns",
         values_are_shared},
        {"subkey-all", "kvtc_enum_subkey delivers each subkey once, then returns 16", all_subkeys},
        {"subkey-last", "last counts the subkeys that follow, 0 after the final one",
         subkeys_that_follow},
        {"subkey-none", "a key without subkeys gives 16 and a negative last", no_subkeys},
        {"subkey-cursor", "the cursor belongs to the open key: no other call moves it",
         cursor_of_key},
        {"subkey-short",
         "a name that does not fit is a failure, and writes no byte beyond the capacity",
         short_name_buffer},
        {"last-error", "kvtc_get_last_error has a code and a terminated text within 1,024 bytes",
         latest_failure},
    };
}

}  // namespace keyview::hosttest
