// The registry client as its callers see it, mostly without locks.
#include <gtest/gtest.h>

#include "registry.h"

namespace keyview::test {

static const std::string SALES_KEY = "DATABASE.DATABASES.sales";
static const std::string CRM = "DATABASE.DATABASES.crm";

class Client : public RegistryTest {
  protected:
    Client() {
        apply({put(SALES_KEY, std::string("Sales\0", 6)), put(CRM, "CRM"),
               put(SALES_KEY + ".ENABLED", "true")});
    }
};

TEST_F(Client, OpensExactlyWhatIsThere) {
    client keys;
    EXPECT_EQ(keys.read(SALES_KEY), std::string("Sales\0", 6));
    EXPECT_EQ(keys.read(CRM), "CRM");
    EXPECT_EQ(keys.read("DATABASE.DATABASES"), "");
    for (const char *path : {"DATABASE.DATABASES.Sales", "DATABASE.DATABASES.sale",
                             "DATABASE.DATABASES.sales.", "DATABASE..DATABASES", "", ".", "\x01"})
        EXPECT_EQ(keys.read(path), "(4)") << path;
    for (size_t length : {2047U, 5000U})
        EXPECT_EQ(keys.read(std::string(length, 'x')), "(4)") << length;
}

TEST_F(Client, EnumeratesWithACountdown) {
    client keys;
    EXPECT_EQ(keys.list("DATABASE.DATABASES"), "1:crm 0:sales (16)0");
    EXPECT_EQ(keys.list(SALES_KEY), "0:ENABLED (16)0");
    EXPECT_EQ(keys.list(CRM), "(16)-1");
}

// Texts of every length in buffers of every size: that of a value, and that of a name.
TEST_F(Client, ABufferThatIsTooSmallLosesNothing) {
    client keys;
    char buffer[21];
    for (uint32_t length = 1; length < sizeof(buffer); ++length) {
        const std::string text(length, 'x');
        locker locks;
        apply({removal(SALES_KEY), put(SALES_KEY, text), put(SALES_KEY + "." + text)});
        ASSERT_EQ(locks.shared("LKRT.DATABASE.DATABASES.sales"), 0);
        void *key = nullptr;
        ASSERT_EQ(keys.open(SALES_KEY, &key), 0);
        bool named = false;
        for (uint32_t room = 0; room < sizeof(buffer); ++room) {
            memset(buffer, '#', sizeof(buffer));
            uint32_t size = room;
            int32_t last = 5, rc = kvtc_get_value(keys.reg, key, nullptr, buffer, &size);
            EXPECT_EQ(rc, length <= room ? 0 : KVTC_ERR_MORE_DATA);
            EXPECT_EQ(size, length);
            EXPECT_EQ(std::string(buffer, length) == text, rc == 0);
            EXPECT_EQ(buffer[room], '#');
            if (named) continue;
            rc = kvtc_enum_subkey(keys.reg, key, buffer, &(size = room), &last);
            named = rc == 0;
            EXPECT_EQ(named, length < room);
            EXPECT_TRUE(named ? buffer == text : rc != KVTC_ERR_MORE_DATA && last == 5) << rc;
            EXPECT_EQ(buffer[room], '#');
        }
    }
}

TEST_F(Client, ReplacesValuesOfExistingKeysOnly) {
    client keys;
    EXPECT_EQ(keys.set(CRM, std::string("false\0", 6)), 0);
    EXPECT_EQ(stored(CRM), std::string("false\0", 6));
    EXPECT_EQ(keys.set(CRM + "x", "x"), KVTC_ERR_KEY_NOT_FOUND);

    void *key = nullptr;
    ASSERT_EQ(keys.open(CRM, &key), 0);
    EXPECT_NE(kvtc_set_value(keys.reg, key, 1, "x", 1), 0) << "no such type";
    EXPECT_EQ(kvtc_set_value(keys.reg, key, KVTC_TYPE_STRING, "new", 3), 0);
    EXPECT_EQ(keys.value_of(key), "new") << "the handle that set it";
    apply({removal(CRM)});
    EXPECT_NE(kvtc_set_value(keys.reg, key, KVTC_TYPE_STRING, "x", 1), 0);
    EXPECT_EQ(stored(CRM), "(none)") << "never created";
    EXPECT_EQ(keys.value_of(key), "new") << "one open is one read";
}

TEST_F(Client, HandlesThatAreNotLiveAreRefused) {
    client keys, other;
    locker locks;
    void *key = nullptr, *reused = nullptr;
    ASSERT_EQ(keys.open(CRM, &key), 0);
    EXPECT_NE(kvtc_close_key(other.reg, key), 0) << "another handle's key";
    EXPECT_EQ(kvtc_close_key(keys.reg, key), 0);
    ASSERT_EQ(keys.open(SALES_KEY, &reused), 0);
    EXPECT_EQ(keys.value_of(key), "(2)") << "its place is another key's now";
    EXPECT_EQ(kvtc_terminate(other.reg), 0);
    for (void *bad :
         {other.reg, static_cast<void *>(nullptr), static_cast<void *>(&key), key, locks.lk}) {
        EXPECT_NE(kvtc_terminate(bad), 0);
        EXPECT_NE(kvtc_open_key(bad, &key, "DATABASE"), 0);
        EXPECT_NE(kvtc_close_key(bad, reused), 0);
        EXPECT_NE(kvtc_close_key(keys.reg, bad), 0);
    }
    EXPECT_NE(kvtc_open_key(keys.reg, nullptr, "DATABASE"), 0);
    EXPECT_NE(kvtc_open_key(keys.reg, &key, nullptr), 0);
}

TEST_F(Client, EveryFailureLeavesACodeAndAText) {
    client keys;
    EXPECT_EQ(keys.read(CRM + "x"), "(4)");
    for (uint32_t capacity : {1024U, 5U}) {
        char text[1024] = "";
        uint32_t size = capacity;
        int32_t code = 0;
        EXPECT_EQ(kvtc_get_last_error(keys.reg, &code, text, &size), 0);
        EXPECT_EQ(code, KVTC_ERR_KEY_NOT_FOUND);
        std::string whole = "cannot open 'DATABASE.DATABASES.crmx': there is no such key";
        EXPECT_EQ(text, whole.substr(0, capacity - 1));
        EXPECT_EQ(keyview_host_last_error(), whole);
    }
}

}  // namespace keyview::test
