// What the holder of a lock reads: one moment of the part of the tree that the lock covers.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr const char *SALES_LOCK = "LKRT.DATABASE.DATABASES.sales";

class Snapshot : public RegistryTest {
  protected:
    static constexpr const char *PATHS[] = {
        "DATABASE",
        "DATABASE.DATABASES",
        "DATABASE.DATABASES.sales",
        "DATABASE.DATABASES.sales.A",
        "DATABASE.DATABASES.sales.L.x",
        "DATABASE.DATABASES.sales2.A",
        "DATABASE.NODEAPPS.n1.VIP",
        "DATABASE.STG.s.asm.A",
    };

    Snapshot() { write_all("old"); }

    void write_all(const std::string &value) {
        std::vector<change> changes;
        for (const char *path : PATHS)
            changes.push_back(put(path, value));
        apply(changes);
    }

    client keys;
    locker locks;
};

// Takes the lock and reads its first key; then another process changes everything.
TEST_F(Snapshot, CoversWhatTheNameOfItsLockSays) {
    struct {
        const char *lock;
        std::vector<std::string> covered;
    } const ROWS[] = {
        {SALES_LOCK, {PATHS[2], PATHS[3], PATHS[4]}},
        {"LKRT.DATABASE.DATABASES", {PATHS[1], PATHS[2]}},
        {"LKRT.DATABASE.NODEAPPS.n1", {PATHS[6]}},
        {"LKRT.STG.DATABASE.STG.s.asm", {PATHS[7]}},
        {"LKRT.DATABASE.DATABASES.sale", {}},
        {"LKRT.DATABASE.DATABASES.sales.", {}},
        {"LKRT.", {}},
        {"OTHER.DATABASE.DATABASES.sales", {}},
    };
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.lock);
        write_all("old");
        ASSERT_EQ(locks.shared(row.lock), 0);
        for (const std::string &path : row.covered)
            EXPECT_EQ(keys.read(path), "old");
        child_process([&](const meeting &) { return write_all("new"), 0; }).status();
        for (const std::string path : PATHS) {
            bool covered = std::count(row.covered.begin(), row.covered.end(), path) > 0;
            EXPECT_EQ(keys.read(path), covered ? "old" : "new") << path;
        }
        ASSERT_EQ(locks.unlock(row.lock), 0);
        for (const char *path : PATHS)
            EXPECT_EQ(keys.read(path), "new") << path;
    }
}

TEST_F(Snapshot, ListsStayAsTheyWere) {
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales"), "1:A 0:L (16/0)");
    apply({removal("DATABASE.DATABASES.sales.L"), put("DATABASE.DATABASES.sales.N")});
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales"), "1:A 0:L (16/0)");
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales.L"), "0:x (16/0)");
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales.A"), "(16/-1)");
    EXPECT_EQ(keys.read("DATABASE.DATABASES.sales.N"), "(4)");
    ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales"), "1:A 0:N (16/0)");
}

// The lock of all databases brings their list; what is inside a database is read as it is.
TEST_F(Snapshot, OfAllDatabasesGoesOneLevelDeep) {
    const char *all = "LKRT.DATABASE.DATABASES";
    ASSERT_EQ(locks.shared(all), 0);
    EXPECT_EQ(keys.list("DATABASE.DATABASES"), "1:sales 0:sales2 (16/0)");
    apply({put("DATABASE.DATABASES.crm"), put("DATABASE.DATABASES.sales.N")});
    EXPECT_EQ(keys.list("DATABASE.DATABASES"), "1:sales 0:sales2 (16/0)");
    EXPECT_EQ(keys.read("DATABASE.DATABASES.crm"), "(4)");
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales"), "2:A 1:L 0:N (16/0)");
    ASSERT_EQ(locks.shared(SALES_LOCK), 0) << "the closest lock counts";
    EXPECT_EQ(keys.read("DATABASE.DATABASES.sales.A"), "old");
    apply({put("DATABASE.DATABASES.sales.A", "new")});
    EXPECT_EQ(keys.read("DATABASE.DATABASES.sales.A"), "old");
}

TEST_F(Snapshot, ShowsWhatItsHolderSets) {
    void *before = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &before, PATHS[3]), 0);
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    void *within = nullptr;
    ASSERT_EQ(kvtc_open_key(keys.reg, &within, PATHS[3]), 0);
    EXPECT_EQ(keys.set(PATHS[3], "mine"), 0);
    EXPECT_EQ(stored(PATHS[3]), "mine") << "at once";
    EXPECT_EQ(keys.read(PATHS[3]), "mine");
    EXPECT_EQ(keys.value_of(within), "mine");
    EXPECT_EQ(keys.value_of(before), "old") << "opened before the lock";
    EXPECT_EQ(kvtc_set_value(keys.reg, before, KVTC_TYPE_STRING, "again", 5), 0);
    EXPECT_EQ(keys.read(PATHS[3]), "again");

    apply({removal(PATHS[4])});
    EXPECT_EQ(keys.read(PATHS[4]), "old");
    EXPECT_NE(keys.set(PATHS[4], "mine"), 0) << "gone from the registry";
    EXPECT_EQ(keys.read(PATHS[4]), "old") << "a failed set changes no snapshot";
    ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    EXPECT_EQ(keys.value_of(within), "again") << "a key outlives the lock it was opened under";
    EXPECT_EQ(kvtc_close_key(keys.reg, within), 0);
}

TEST_F(Snapshot, BelongsToOneThreadAndOneRegistry) {
    scratch_directory elsewhere;
    std::string other_url = "lmdb:" + elsewhere.path;
    backend other = open_backend(other_url, open_mode::create);
    other.keys->apply({put(PATHS[3], "other")});
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    EXPECT_EQ(keys.read(PATHS[3]), "old");
    apply({put(PATHS[3], "new")});
    std::thread([&] { EXPECT_EQ(client().read(PATHS[3]), "new"); }).join();
    EXPECT_EQ(client().read(PATHS[3]), "old") << "another handle of this thread";
    ASSERT_EQ(keyview_host_set_registry(other_url.c_str()), 0);
    EXPECT_EQ(client().read(PATHS[3]), "other");
}

TEST_F(Snapshot, IsNotThatOfAForkedChild) {
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    EXPECT_EQ(keys.read(PATHS[3]), "old");
    apply({put(PATHS[3], "new")});
    child_process child([&](const meeting &) {
        keyview_host_set_lock_wait(0);
        if (keys.read(PATHS[3]) != "new") return 1;
        return locks.shared(SALES_LOCK) == 0 ? 2 : 0;  // the parent's
    });
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(keys.read(PATHS[3]), "old");
    EXPECT_EQ(locks.unlock(SALES_LOCK), 0);
}

// Every key of a large part, in the library's order and in none.
TEST_F(Snapshot, FindsEveryKeyInAnyOrder) {
    std::vector<std::string> paths;
    for (int i = 0; i < 30; ++i) {
        for (const char *tail : {"", ".NODE", ".ENABLED", ".L.a", ".L.b", ".L.ab"})
            paths.push_back("DATABASE.DATABASES.sales.I.i" + std::to_string(i) + tail);
    }
    std::vector<change> changes;
    for (const std::string &path : paths)
        changes.push_back(put(path, path));
    apply(changes);
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    for (size_t step : {1U, 7U, 31U}) {
        for (size_t i = 0; i < paths.size() * step; i += step) {
            const std::string &path = paths[i % paths.size()];
            ASSERT_EQ(keys.read(path), path);
            ASSERT_EQ(keys.read(path + "x"), "(4)");
        }
    }
    EXPECT_EQ(keys.list("DATABASE.DATABASES.sales.I.i7.L"), "2:a 1:ab 0:b (16/0)");
}

}  // namespace keyview::test
