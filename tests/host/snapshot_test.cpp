// What the holder of a lock reads: one moment of the part of the tree that the lock covers.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <thread>

#include "host/registry/locked_view.h"
#include "model/path.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static const std::string ROOT = "DATABASE.DATABASES";
static const std::string SALES = "DATABASE.DATABASES.sales";
static const std::string KEY = "DATABASE.DATABASES.sales.A";
static constexpr const char *ALL_LOCK = "LKRT.DATABASE.DATABASES";
static constexpr const char *SALES_LOCK = "LKRT.DATABASE.DATABASES.sales";

class Snapshot : public RegistryTest {
  protected:
    Snapshot() { write_all("old"); }

    void write_all(const std::string &value) {
        std::vector<change> changes;
        for (const std::string &path : paths)
            changes.push_back(put(path, value));
        apply(changes);
    }

    const std::vector<std::string> paths = {"DATABASE",
                                            ROOT,
                                            SALES,
                                            KEY,
                                            "DATABASE.DATABASES.sales.L.x",
                                            "DATABASE.DATABASES.sales2.A",
                                            "DATABASE.NODEAPPS.n1.VIP",
                                            "DATABASE.STG.s.asm.A"};
    client keys;
    locker locks;
};

// Takes the lock and reads its keys; then another process changes everything.
TEST_F(Snapshot, CoversWhatTheNameOfItsLockSays) {
    struct {
        const char *lock;
        std::vector<std::string> covered;
    } const ROWS[] = {
        {SALES_LOCK, {SALES, KEY, paths[4]}},
        {ALL_LOCK, {ROOT, SALES}},
        {"LKRT.DATABASE.NODEAPPS.n1", {paths[6]}},
        {"LKRT.STG.DATABASE.STG.s.asm", {paths[7]}},
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
        for (const std::string &path : paths) {
            bool covered = std::count(row.covered.begin(), row.covered.end(), path) > 0;
            EXPECT_EQ(keys.read(path), covered ? "old" : "new") << path;
        }
        ASSERT_EQ(locks.unlock(row.lock), 0);
        for (const std::string &path : paths)
            EXPECT_EQ(keys.read(path), "new") << path;
    }
}

// Whichever lock came first; also where the order of the reads is known from the time before: ROOT and then
// SALES under the outer lock.
TEST_F(Snapshot, TheClosestLockShowsItsOwnMoment) {
    for (const char *first : {SALES_LOCK, ALL_LOCK}) {
        write_all("old");
        for (const char *lock : {first, first == ALL_LOCK ? SALES_LOCK : ALL_LOCK})
            ASSERT_EQ(locks.shared(lock), 0);
        EXPECT_EQ(keys.read(KEY), "old");
        write_all("new");
        EXPECT_EQ(keys.read(SALES), "old") << first;
        EXPECT_EQ(keys.read(ROOT), "new") << "the other one has read nothing yet";
        for (const char *lock : {SALES_LOCK, ALL_LOCK})
            ASSERT_EQ(locks.unlock(lock), 0);
    }
    for (bool both : {false, true}) {
        write_all("old");
        ASSERT_EQ(locks.shared(ALL_LOCK), 0);
        EXPECT_EQ(keys.read(ROOT), "old");
        write_all("new");
        EXPECT_EQ(both ? locks.shared(SALES_LOCK) : 0, 0);
        EXPECT_EQ(keys.read(SALES), both ? "new" : "old");
        EXPECT_EQ(both ? locks.unlock(SALES_LOCK) : 0, 0);
        EXPECT_EQ(keys.read(SALES), "old");
        ASSERT_EQ(locks.unlock(ALL_LOCK), 0);
    }
}

TEST_F(Snapshot, ListsStayAsTheyWere) {
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    EXPECT_EQ(keys.list(SALES), "1:A 0:L (16)0");
    apply({removal(SALES + ".L"), put(SALES + ".N")});
    EXPECT_EQ(keys.list(SALES), "1:A 0:L (16)0");
    EXPECT_EQ(keys.list(SALES + ".L"), "0:x (16)0");
    EXPECT_EQ(keys.list(KEY), "(16)-1");
    EXPECT_EQ(keys.read(SALES + ".N"), "(4)");
    ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    EXPECT_EQ(keys.list(SALES), "1:A 0:N (16)0");
    apply({put(SALES + ".N.later")});
    EXPECT_EQ(keys.list(SALES + ".N"), "(16)-1");
    ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    EXPECT_EQ(keys.list(SALES + ".N"), "0:later (16)0");
}

// The lock of all databases brings their list; what is inside a database is read as it is.
TEST_F(Snapshot, OfAllDatabasesGoesOneLevelDeep) {
    ASSERT_EQ(locks.shared(ALL_LOCK), 0);
    EXPECT_EQ(keys.list(ROOT), "1:sales 0:sales2 (16)0");
    apply({put(ROOT + ".crm"), put(SALES + ".N")});
    EXPECT_EQ(keys.list(ROOT), "1:sales 0:sales2 (16)0");
    EXPECT_EQ(keys.read(ROOT + ".crm"), "(4)");
    EXPECT_EQ(keys.list(SALES), "2:A 1:L 0:N (16)0");
    ASSERT_EQ(locks.shared(SALES_LOCK), 0) << "the closest lock counts";
    EXPECT_EQ(keys.read(KEY), "old");
    apply({put(KEY, "new")});
    EXPECT_EQ(keys.read(KEY), "old");
}

TEST_F(Snapshot, ShowsWhatItsHolderSets) {
    void *before = nullptr, *within = nullptr;
    ASSERT_EQ(keys.open(KEY, &before), 0);
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    ASSERT_EQ(keys.open(KEY, &within), 0);
    EXPECT_EQ(keys.set(KEY, "mine"), 0);
    EXPECT_EQ(stored(KEY), "mine") << "at once";
    EXPECT_EQ(keys.read(KEY), "mine");
    EXPECT_EQ(keys.value_of(within), "mine");
    EXPECT_EQ(keys.value_of(before), "old") << "opened before the lock";
    EXPECT_EQ(kvtc_set_value(keys.reg, before, KVTC_TYPE_STRING, "again", 5), 0);
    EXPECT_EQ(keys.read(KEY), "again");

    apply({removal(paths[4])});
    EXPECT_NE(keys.set(paths[4], "mine"), 0) << "gone from the registry";
    EXPECT_EQ(keys.read(paths[4]), "old") << "a failed set changes no snapshot";
    ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    EXPECT_EQ(keys.value_of(within), "again") << "a key outlives the lock it was opened under";
    EXPECT_EQ(kvtc_set_value(keys.reg, within, KVTC_TYPE_STRING, "last", 4), 0);
    EXPECT_EQ(keys.value_of(within), "last");
}

TEST_F(Snapshot, BelongsToOneThreadAndOneRegistry) {
    scratch_directory elsewhere;
    std::string other = "lmdb:" + elsewhere.path;
    open_backend(other, open_mode::create).keys->apply({put(KEY, "other")});
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    EXPECT_EQ(keys.read(KEY), "old");
    apply({put(KEY, "new")});
    std::thread([&] { EXPECT_EQ(client().read(KEY), "new"); }).join();
    EXPECT_EQ(client().read(KEY), "old") << "another handle of this thread";
    ASSERT_EQ(keyview_host_set_registry(other.c_str()), 0);
    const client others;
    EXPECT_EQ(others.read(KEY), "other");

    ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    const locker others_locks;
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    ASSERT_EQ(others_locks.exclusive(SALES_LOCK), 0) << "one name, two registries";
    EXPECT_EQ(keys.read(KEY) + others.read(KEY), "newother");
    EXPECT_EQ(others.set(KEY, "mine"), 0);
    EXPECT_EQ(keys.read(KEY) + others.read(KEY), "newmine");
}

// Nor does the child end the parent's moment: writers would use its pages again.
TEST_F(Snapshot, IsNotThatOfAForkedChild) {
    for (bool child_reads : {true, false}) {
        const std::string top = ROOT + (child_reads ? ".reads" : ".exits"), lock = "LKRT." + top;
        const std::string first = top + ".A", later = top + ".L.x";
        apply({put(first, "old"), put(later, "old")});
        ASSERT_EQ(locks.exclusive(lock.c_str()), 0);
        EXPECT_EQ(keys.read(first), "old");
        apply({put(first, "new")});
        child_process child([&](const meeting &) {
            if (!child_reads) exit(0);
            (void)keyview_host_set_lock_wait(0);
            if (keys.read(first) != "new") return 1;
            return locks.shared(lock.c_str()) == 0 ? 2 : 0;  // the parent's
        });
        EXPECT_EQ(child.status(), 0);
        EXPECT_EQ(keys.read(first), "old");
        for (int round = 0; round < 20; ++round)
            apply({put(first, std::to_string(round)), put(later, std::to_string(round))});
        EXPECT_EQ(keys.read(later), "old") << "looked up now";
        EXPECT_EQ(locks.unlock(lock.c_str()), 0);
    }
}

// A handle keeps what it copied under a lock, and so does the one that is opened after it. Each
// change must be seen under the next one, also if killed writers left the counts that tell of
// changes in any state.
TEST_F(Snapshot, KeepsItsCopiesOnlyWhileThePartIsTheSame) {
    const std::string other = ROOT + ".sales2.A";
    auto reader = std::make_unique<client>();
    unsigned reads = 0;
    auto under_lock = [&](const std::string &path) {
        if (++reads % 5 < 2) reader.reset();
        if (reader == nullptr) reader = std::make_unique<client>();
        EXPECT_EQ(locks.shared(SALES_LOCK), 0);
        std::string value = reader->read(path) + reader->list(SALES + ".L");
        EXPECT_EQ(locks.unlock(SALES_LOCK), 0);
        return value;
    };
    auto by_another = [&](const std::vector<change> &changes) {
        child_process([&](const meeting &) { return apply(changes), 0; }).status();
    };
    for (char left_by_the_killed : {'\x00', '\x01', '\xFF'}) {
        std::ofstream words(directory + "/locks", std::ios::in | std::ios::out);
        words.seekp(4096) << std::string(4096, left_by_the_killed);
        words.close();
        by_another({put(KEY, "old"), put(paths[4], "x")});
        EXPECT_EQ(under_lock(KEY), "old0:x (16)0");
        by_another({put(other, "new")});
        EXPECT_EQ(under_lock(KEY), "old0:x (16)0");
        by_another({put(KEY, "new"), put(SALES + ".L.a")});
        EXPECT_EQ(under_lock(KEY), "new1:a 0:x (16)0");
        EXPECT_EQ(keys.set(KEY, "mine"), 0) << "without a lock";
        EXPECT_EQ(under_lock(KEY), "mine1:a 0:x (16)0");
        by_another({removal(SALES)});
        EXPECT_EQ(under_lock(KEY), "(4)");
        by_another({removal("DATABASE"), put(paths[4], "x"), put(KEY, "again")});
        EXPECT_EQ(under_lock(KEY), "again0:x (16)0");
    }
}

// Also a key that the first handle would have read next.
TEST_F(Snapshot, AnOpenKeyOutlivesTheOtherHandleUnderItsLock) {
    auto first = std::make_unique<client>();
    void *open = nullptr;
    EXPECT_EQ(keys.read(KEY), "old");  // it has a handle of a key to give again
    for (bool again : {false, true}) {
        ASSERT_EQ(locks.shared(SALES_LOCK), 0);
        EXPECT_EQ(first->read(SALES), "old");
        EXPECT_EQ((again ? keys : *first).open(KEY, &open), 0);
        if (again) first.reset();
        ASSERT_EQ(locks.unlock(SALES_LOCK), 0);
    }
    EXPECT_EQ(keys.value_of(open), "old");
    EXPECT_EQ(kvtc_close_key(keys.reg, open), 0);
}

TEST_F(Snapshot, AnOpenKeyOutlivesItsCopiesInTheCache) {
    std::vector<change> changes;
    std::vector<std::string> names;
    for (int i = 0; i < 9; ++i)
        changes.push_back(
            put(names.emplace_back(ROOT + ".once" + std::to_string(i)), std::to_string(i)));
    apply(changes);
    std::vector<void *> open(names.size());
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string lock = "LKRT." + names[i];
        ASSERT_EQ(locks.shared(lock.c_str()), 0);
        EXPECT_EQ(keys.open(names[i], &open[i]), 0);
        ASSERT_EQ(locks.unlock(lock.c_str()), 0);
    }
    for (size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(keys.value_of(open[i]), std::to_string(i));
        EXPECT_EQ(kvtc_close_key(keys.reg, open[i]), 0);
    }
}

// What a handle leaves is not what a lock of another handle still shows.
TEST_F(Snapshot, AClosedHandleLeavesItsCopiesToTheNext) {
    auto use = [&](const client &handle) {
        EXPECT_EQ(locks.shared(SALES_LOCK), 0);
        EXPECT_EQ(handle.read(KEY), "old");
    };
    {
        client first;
        void *left_open = nullptr;
        use(first);
        EXPECT_EQ(first.open(KEY, &left_open), 0);
        EXPECT_EQ(locks.unlock(SALES_LOCK), 0);
    }
    auto left = registry.keys->take_copies();
    ASSERT_EQ(left.size(), 1U);
    const std::weak_ptr<copies> same = left[0]->of;
    registry.keys->keep_copies(std::move(left));
    {
        client second;
        EXPECT_TRUE(registry.keys->take_copies().empty()) << "one handle has them";
        use(second);
        EXPECT_GT(same.use_count(), 1) << "and reads from them";
    }
    EXPECT_TRUE(registry.keys->take_copies().empty()) << "the lock still shows them";
    EXPECT_EQ(locks.unlock(SALES_LOCK), 0);
    EXPECT_TRUE(same.expired());
}

// Those of parts that are read again, up to a number, while a long list of others is read once.
TEST_F(Snapshot, KeepsTheCopiesOfWhatIsReadAgain) {
    auto name = [](int number) { return ROOT + ".db" + std::to_string(100 + number); };
    std::vector<change> changes;
    for (int number = 0; number < 300; ++number)
        changes.push_back(put(name(number), "x"));
    apply(changes);
    auto reader = std::make_unique<client>();
    auto read = [&](int first, int end) {
        for (int number = first; number < end; ++number) {
            const std::string lock = "LKRT." + name(number);
            ASSERT_EQ(locks.shared(lock.c_str()), 0);
            EXPECT_EQ(reader->read(name(number)), "x");
            ASSERT_EQ(locks.unlock(lock.c_str()), 0);
        }
    };
    auto kept = [&] {
        reader = nullptr;
        auto left = registry.keys->take_copies();
        std::string tops;
        for (const auto &one : left)
            tops += one->of->top.substr(one->of->top.size() - 3) + " ";
        registry.keys->keep_copies(std::move(left));
        reader = std::make_unique<client>();
        return tops;
    };
    read(0, 6);
    EXPECT_EQ(kept(), "104 105 ") << "the last two";
    for (int round = 0; round < 2; ++round)
        read(0, 6);
    read(6, 300);
    EXPECT_EQ(kept(), "100 101 102 103 104 105 398 399 ");
    for (int round = 0; round < 3; ++round)
        read(100, 164);
    EXPECT_EQ(kept().size(), 64 * 4U);
    read(200, 300);
    EXPECT_EQ(kept().substr(62 * 4), "398 399 ");
}

// Copies are filled again after changes of every kind, between and below keys that are open, by
// readers of some keys, of all keys in the same order, and of lists.
TEST_F(Snapshot, ReadersOfAChangingPartReadWhatIsThere) {
    std::mt19937 random(20261126);
    std::vector<std::string> below = {"", ".A", ".L", ".I"};
    for (const char *name : {"i1", "i2", "i3"}) {
        for (const char *field : {"", ".NODE", ".E", ".E.x"})
            below.push_back(std::string(".I.") + name + field);
    }
    const std::string databases[] = {SALES, ROOT + ".ledger", ROOT + ".sales2"};
    for (int round = 0; round < 900 && !HasFailure(); ++round) {
        const std::string top = databases[random() % 3], lock = "LKRT." + top;
        std::vector<std::string> some;
        for (const std::string &one : below)
            some.push_back(top + one);
        auto any = [&] { return some[random() % some.size()]; };
        auto present = [this](const std::string &path) {
            const std::string value = stored(path);
            return value == "(none)" ? "(4)" : value;
        };
        const std::string alone = any();
        for (size_t visit = random() % 4; visit > 0; --visit) {  // as for a set of one flag
            apply({random() % 4 == 0 ? removal(alone) : put(alone, std::to_string(visit))});
            ASSERT_EQ(locks.exclusive(lock.c_str()), 0);
            ASSERT_EQ(keys.read(alone), present(alone));
            ASSERT_EQ(locks.unlock(lock.c_str()), 0);
        }
        std::vector<change> changes;
        for (size_t i = random() % 3; i > 0; --i) {
            std::string value(random() % (round % 8 == 0 ? 40 : 3),
                              static_cast<char>('a' + round % 26));
            changes.push_back(random() % 4 == 0 ? removal(any()) : put(any(), value));
        }
        apply(changes);
        ASSERT_EQ(locks.exclusive(lock.c_str()), 0);
        if (random() % 4 == 0) (void)keys.set(any(), "mine");
        void *open = nullptr;
        const std::string opened = any();
        bool there = keys.open(opened, &open) == 0;
        client fresh;
        for (size_t i = random() % 2 == 0 ? 0 : random() % some.size(); i < some.size(); ++i) {
            ASSERT_EQ(keys.read(some[i]), present(some[i])) << some[i];
            if (random() % 8 == 0) {
                ASSERT_EQ(keys.list(some[i]), fresh.list(some[i]));
            }
        }
        ASSERT_EQ(locks.unlock(lock.c_str()), 0);
        if (there && random() % 2 == 0) {
            std::string then = stored(opened);
            apply({put(opened, "later"), put(top + ".I.i0", "before the others")});
            ASSERT_EQ(locks.shared(lock.c_str()), 0);
            ASSERT_EQ(keys.read(opened), "later");
            ASSERT_EQ(keys.value_of(open), then) << "of the lock under which it was opened";
            ASSERT_EQ(locks.unlock(lock.c_str()), 0);
            apply({removal(top + ".I.i0")});
        }
        if (there) (void)kvtc_close_key(keys.reg, open);
    }
}

// Keys that are looked up one by one show the moment of the first look, however many they are.
TEST_F(Snapshot, ShowsOneMomentInSingleKeys) {
    std::vector<change> changes, later;
    for (int i = 0; i < 50; ++i) {
        changes.push_back(put(SALES + ".I.i" + std::to_string(i) + ".NODE", "old"));
        later.push_back(put(changes.back().path, "new"));
    }
    apply(changes);
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    EXPECT_EQ(keys.read(changes[0].path), "old");
    apply(later);
    EXPECT_EQ(keys.set(changes[1].path, "mine"), 0);
    for (size_t i = 0; i < changes.size(); ++i)
        EXPECT_EQ(keys.read(changes[i].path), i == 1 ? "mine" : "old") << i;
    EXPECT_EQ(keys.list(SALES + ".I.i7"), "0:NODE (16)0");
}

// The map of the file moves only when no moment needs it; the thread's own must not stand in the
// way.
TEST_F(Snapshot, LetsItsHolderMakeTheRegistryGrow) {
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    EXPECT_EQ(keys.read(paths[4]), "old") << "looked up alone";
    const std::string large(MAX_VALUE_SIZE, 'v');
    EXPECT_EQ(keys.set(KEY, large), 0);
    EXPECT_EQ(keys.read(paths[4]), "old");
    apply({put(SALES + ".B", large), put(SALES + ".C", large), put(paths[4], "new")});
    EXPECT_EQ(keys.read(paths[4]), "old");
    EXPECT_EQ(stored(paths[4]), "new");
}

// Nor in the way of the holder of a lock that the thread waits for.
TEST_F(Snapshot, LetsTheHolderOfAnotherLockMakeTheRegistryGrow) {
    ASSERT_EQ(locks.exclusive(SALES_LOCK), 0);
    EXPECT_EQ(keys.read(KEY), "old");
    auto other = registry.locks->acquire("LKRT.other", lock_mode::exclusive, 0);
    std::thread holder([&] {
        usleep(50000);  // so that the first thread waits
        std::vector<change> changes;
        for (int i = 0; i < 8; ++i)
            changes.push_back(
                put(ROOT + ".big.V" + std::to_string(i), std::string(MAX_VALUE_SIZE, 'v')));
        EXPECT_EQ(apply(changes).created, 9U);
        other.reset();
    });
    EXPECT_NO_THROW(registry.locks->acquire("LKRT.other", lock_mode::exclusive, 5000));
    holder.join();
    EXPECT_EQ(keys.read(paths[4]), "old");
}

// Every key of a large part, in the order of its lists and in others.
TEST_F(Snapshot, FindsEveryKeyInAnyOrder) {
    std::vector<std::string> many;
    std::vector<change> changes;
    for (int i = 0; i < 30; ++i) {
        for (const char *tail : {"", ".NODE", ".ENABLED", ".L.a", ".L.b", ".L.ab"}) {
            many.push_back(SALES + ".I.i" + std::to_string(i) + tail);
            changes.push_back(put(many.back(), many.back()));
        }
    }
    apply(changes);
    ASSERT_EQ(locks.shared(SALES_LOCK), 0);
    for (size_t step : {1U, 7U, 31U}) {
        for (size_t i = 0; i < many.size() * step; i += step) {
            const std::string &path = many[i % many.size()];
            ASSERT_EQ(keys.read(path), path);
            ASSERT_EQ(keys.read(path + "x"), "(4)");
        }
    }
    EXPECT_EQ(keys.list(SALES + ".I.i7.L"), "2:a 1:ab 0:b (16)0");
}

TEST_F(Snapshot, KeepsAValueThatItCannotReplace) {
    snapshot part("A", reach::key_alone);
    part.add_top("old", 0);
    std::string_view longest("", UINT32_MAX);  // refused before it is read
    EXPECT_EQ(failure_of([&] { part.set_value(snapshot::TOP, longest); }), failure::content);
    ASSERT_EQ(part.value(snapshot::TOP).size(), 3u);
    EXPECT_EQ(part.value(snapshot::TOP), "old");
}

}  // namespace keyview::test
