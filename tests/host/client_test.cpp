// The registry client as its callers see it, without locks.
#include <gtest/gtest.h>

#include "process.h"
#include "registry.h"

namespace keyview::test {

class Client : public RegistryTest {
  protected:
    Client() {
        std::string mark("Sales\0", 6);
        apply({put("DATABASE.DATABASES.sales", mark), put("DATABASE.DATABASES.crm", "CRM"),
               put("DATABASE.DATABASES.sales.ENABLED", "true"), put("DATABASE.NODEAPPS")});
    }
};

TEST_F(Client, OpensExactlyWhatIsThere) {
    client keys;
    struct {
        std::string path;
        std::string seen;
    } const ROWS[] = {
        {"DATABASE.DATABASES.sales", std::string("Sales\0", 6)},
        {"DATABASE.DATABASES.crm", "CRM"},
        {"DATABASE.DATABASES", ""},
        {"DATABASE.DATABASES.Sales", "(4)"},
        {"DATABASE.DATABASES.sale", "(4)"},
        {"DATABASE.DATABASES.sales.", "(4)"},
        {"DATABASE..DATABASES", "(4)"},
        {"", "(4)"},
        {"\x01", "(4)"},
        {std::string(2047, 'x'), "(4)"},
        {std::string(5000, 'x'), "(4)"},
    };
    for (const auto &row : ROWS)
        EXPECT_EQ(keys.read(row.path), row.seen) << row.path;
}

TEST_F(Client, EnumeratesWithACountdown) {
    client keys;
    EXPECT_EQ(keys.list("DATABASE.DATABASES"), "1:crm 0:sales (16/0)");
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales"), "0:ENABLED (16/0)");
    EXPECT_EQ(keys.list("DATABASE.NODEAPPS"), "(16/-1)");
}

TEST_F(Client, ABufferThatIsTooSmallLosesNothing) {
    client keys;
    void *key = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &key, "DATABASE.DATABASES.sales"), 0);
    char buffer[8] = "";
    uint32_t type = 0;
    uint32_t size = 5;
    EXPECT_EQ(kvtc_get_value(keys.reg, key, &type, buffer, &size), KVTC_ERR_MORE_DATA);
    EXPECT_EQ(size, 6U);
    EXPECT_EQ(kvtc_get_value(keys.reg, key, &type, buffer, &size), 0) << "exactly what is needed";
    EXPECT_STREQ(buffer, "Sales");

    int32_t last = 5;
    size = 7;
    int32_t rc = kvtc_enum_subkey(keys.reg, key, buffer, &size, &last);
    EXPECT_TRUE(rc != 0 && rc != KVTC_ERR_MORE_DATA && rc != KVTC_ERR_NO_MORE_KEYS) << rc;
    size = 8;
    EXPECT_EQ(kvtc_enum_subkey(keys.reg, key, buffer, &size, &last), 0);
    EXPECT_STREQ(buffer, "ENABLED");
    EXPECT_EQ(last, 0);
}

TEST_F(Client, OtherKeysDoNotMoveTheCursor) {
    client keys;
    void *key = nullptr;
    void *again = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &key, "DATABASE.DATABASES"), 0);
    ASSERT_EQ(kvtc_open_key(keys.reg, &again, "DATABASE.DATABASES"), 0);
    char name[16];
    int32_t last = 0;
    for (const char *expected : {"crm", "sales"}) {
        uint32_t size = sizeof(name);
        ASSERT_EQ(kvtc_enum_subkey(keys.reg, key, name, &size, &last), 0);
        EXPECT_STREQ(name, expected);
        EXPECT_EQ(keys.list("DATABASE.DATABASES"), "1:crm 0:sales (16/0)");
        apply({put("DATABASE.DATABASES.hr")});
        apply({removal("DATABASE.DATABASES.hr")});
    }
    uint32_t size = sizeof(name);
    EXPECT_EQ(kvtc_enum_subkey(keys.reg, again, name, &size, &last), 0);
    EXPECT_STREQ(name, "crm");
}

TEST_F(Client, ReplacesValuesOfExistingKeysOnly) {
    client keys;
    EXPECT_EQ(keys.set("DATABASE.DATABASES.crm", std::string("false\0", 6)), 0);
    EXPECT_EQ(stored("DATABASE.DATABASES.crm"), std::string("false\0", 6));
    EXPECT_EQ(keys.set("DATABASE.DATABASES.none", "x"), KVTC_ERR_KEY_NOT_FOUND);

    void *key = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &key, "DATABASE.DATABASES.crm"), 0);
    EXPECT_NE(kvtc_set_value(keys.reg, key, 1, "x", 1), 0) << "no such type";
    EXPECT_EQ(kvtc_set_value(keys.reg, key, KVTC_TYPE_STRING, "new", 3), 0);
    EXPECT_EQ(keys.value_of(key), "new") << "the handle that set it";
    apply({removal("DATABASE.DATABASES.crm")});
    EXPECT_NE(kvtc_set_value(keys.reg, key, KVTC_TYPE_STRING, "x", 1), 0);
    EXPECT_EQ(stored("DATABASE.DATABASES.crm"), "(none)") << "never created";
    EXPECT_EQ(keys.value_of(key), "new") << "one open is one read";
}

TEST_F(Client, HandlesThatAreNotLiveAreRefused) {
    client keys;
    client other;
    void *key = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &key, "DATABASE.DATABASES.crm"), 0);
    EXPECT_NE(kvtc_close_key(other.reg, key), 0) << "another handle's key";
    EXPECT_EQ(kvtc_close_key(keys.reg, key), 0);
    EXPECT_NE(kvtc_close_key(keys.reg, key), 0) << "twice";
    EXPECT_EQ(keys.value_of(key), "(error)");
    void *reused = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &reused, "DATABASE.DATABASES.sales"), 0);
    EXPECT_EQ(keys.value_of(key), "(error)") << "its place is another key's now";

    client ended;
    void *dead = ended.reg;
    EXPECT_EQ(kvtc_terminate(dead), 0);
    for (void *bad : {dead, static_cast<void *>(nullptr), static_cast<void *>(&key), key}) {
        EXPECT_NE(kvtc_terminate(bad), 0);
        EXPECT_NE(kvtc_open_key(bad, &reused, "DATABASE"), 0);
        EXPECT_NE(kvtc_close_key(bad, reused), 0);
        EXPECT_NE(kvtc_close_key(keys.reg, bad), 0);
    }
    EXPECT_NE(kvtc_open_key(keys.reg, nullptr, "DATABASE"), 0);
    EXPECT_NE(kvtc_open_key(keys.reg, &key, nullptr), 0);
}

TEST_F(Client, EveryFailureLeavesACodeAndAText) {
    client keys;
    EXPECT_EQ(keys.read("DATABASE.DATABASES.none"), "(4)");
    char text[1024] = "";
    uint32_t size = sizeof(text);
    int32_t code = 0;
    EXPECT_EQ(kvtc_get_last_error(keys.reg, &code, text, &size), 0);
    EXPECT_EQ(code, KVTC_ERR_KEY_NOT_FOUND);
    EXPECT_STREQ(text, "cannot open 'DATABASE.DATABASES.none': there is no such key");
    EXPECT_STREQ(text, keyview_host_last_error());
    char little[5] = "";
    size = sizeof(little);
    EXPECT_EQ(kvtc_get_last_error(keys.reg, nullptr, little, &size), 0);
    EXPECT_STREQ(little, "cann");
}

TEST_F(Client, InitTellsWhatIsWrong) {
    struct {
        std::string url;
        const char *told;
    } const ROWS[] = {
        {"lmdb:" + scratch.path + "/none", "there is no registry in"},
        {"lmdb:" + scratch.path + "/none/none", "there is no registry in"},
        {"lmdb:/dev/null", "it is not a directory"},
    };
    void *reg = nullptr;
    for (const auto &row : ROWS) {
        ASSERT_EQ(keyview_host_set_registry(row.url.c_str()), 0);
        char text[1024] = "";
        uint64_t size = sizeof(text);
        EXPECT_NE(kvtc_init_ext(&reg, 3, text, &size, 0), 0) << row.url;
        EXPECT_NE(std::string(text).find(row.told), std::string::npos) << text;
    }
    EXPECT_NE(keyview_host_set_registry("ftp:/x"), 0);
    EXPECT_NE(keyview_host_set_registry("lmdb:"), 0);
    keyview_host_set_registry(url.c_str());
    EXPECT_NE(kvtc_init_ext(&reg, 2, nullptr, nullptr, 0), 0);
    EXPECT_NE(kvtc_init_ext(nullptr, 3, nullptr, nullptr, 0), 0);
}

// A handle goes on working in a forked child, over files of the child's own, and in the parent.
TEST_F(Client, GoesOnAfterAFork) {
    client keys;
    EXPECT_EQ(keys.read("DATABASE.DATABASES.crm"), "CRM");
    for (int i = 0; i < 3; ++i) {
        child_process child([&](const meeting &) {
            if (keys.read("DATABASE.DATABASES.crm") == "(error)") return 1;
            if (keys.set("DATABASE.DATABASES.crm", std::to_string(i)) != 0) return 2;
            client fresh;
            return fresh.read("DATABASE.DATABASES.crm") == std::to_string(i) ? 0 : 3;
        });
        EXPECT_EQ(child.status(), 0);
        EXPECT_EQ(keys.read("DATABASE.DATABASES.crm"), std::to_string(i));
        EXPECT_EQ(keys.set("DATABASE.DATABASES.crm", "parent"), 0);
    }
}

}  // namespace keyview::test
