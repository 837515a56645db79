// Registries in a healthy cluster: the store, the locks, change sets in pieces.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "../host/process.h"
#include "../host/store_test.h"
#include "cluster/etcd_locks.h"
#include "cluster/journal.pb.h"
#include "host/registry/history.h"
#include "host/registry/reported_wait.h"
#include "host/registry/snapshot.h"
#include "shared.h"

namespace keyview::test {

struct cluster_registry : fresh_registry {
    cluster_registry() { opened = open_cluster(shared_members().url(fresh_prefix())); }
};

std::vector<backend_row> backends_under_test() {
    return {{"cluster", []() -> std::unique_ptr<fresh_registry> {
                 return std::make_unique<cluster_registry>();
             }}};
}

// Two sessions on one tree, as two programs have.
class Cluster : public testing::Test {
  protected:
    // Another order of the members gives another session.
    std::string other_url() const {
        const etcd_members &all = shared_members();
        return "etcd://" + all.address(2) + "," + all.address(0) + "," + all.address(1) + prefix;
    }

    // Stores or removes a key below the prefix, or all that begin with it.
    void store_raw(const std::string &key, const std::optional<std::string> &value,
                   bool all = false) {
        connection calls(settings_of(url));
        wire::TxnRequest request;
        if (value) add_put(request.mutable_success(), prefix + key, *value);
        const key_range range = all ? beginning_with(prefix + key) : key_range{prefix + key, ""};
        if (!value) add_delete(request.mutable_success(), range);
        (void)calls.txn(request, calls.answer_end());
    }

    // An entry in the queue of a lock whose value is its name: "w/a", or "r/a" of a reader.
    void enter(const std::string &lock, const std::string &entry) {
        store_raw("/lk/" + lock + '\0' + entry, entry);
    }
    void leave(const std::string &lock, const std::string &entries) {
        store_raw("/lk/" + lock + '\0' + entries, std::nullopt, true);
    }
    void await_users(size_t count) const {
        for (int n = 0; n < 1000 && mine.locks->users({}).size() != count; ++n)
            usleep(10000);
    }

    int keys_below(const std::string &head) const {
        connection calls(settings_of(url));
        wire::TxnRequest request;
        add_range(request.mutable_success(), beginning_with(prefix + head));
        return range_in(calls.txn(request, calls.answer_end()), 0).kvs_size();
    }

    std::string found_by_check() const {
        std::string found;
        KEYVIEW_BACKEND_KIND.check(
            url, [&](const std::string &, const std::string &reason) { found += reason; },
            [](std::string_view, std::string_view) {});
        return found;
    }

    // Two other programs make small changes without a pause meanwhile, until the tree cannot be changed.
    template <typename work>
    void beside_small_changes(const work &body) const {
        std::atomic<int> changes{0}, ended{0};
        std::atomic<bool> done{false};
        std::vector<std::thread> programs;
        for (const std::string &its : {url, other_url()}) {
            programs.emplace_back([&, its, path = "beside" + std::to_string(programs.size())] {
                const backend one = open_cluster(its);
                try {
                    while (!done)
                        one.keys->apply({put(path, std::to_string(changes++))});
                } catch (const host_error &) {
                    ++ended;  // a change set stopped half-way
                }
            });
        }
        while (changes < 4 && ended == 0)
            usleep(1000);
        EXPECT_NO_THROW(body());
        done = true;
        for (std::thread &one : programs)
            one.join();
    }

    std::string prefix = fresh_prefix();
    std::string url = shared_members().url(prefix);
    backend mine = open_cluster(url);
    backend theirs = open_cluster(other_url());
};

static std::shared_ptr<held_lock> take(const backend &from, lock_mode mode, uint32_t wait_ms) {
    return from.locks->acquire("LKRT.a", mode, wait_ms, {"a", reach::all_below});
}

TEST_F(Cluster, PublicCallsOfOneProgramTakeTwoRoundTrips) {
    std::string key = "DATABASE.DATABASES.sales.A";
    mine.keys->apply({put(key, "old"), put("DATABASE.DATABASES.sales.L.x.y", "deep")});
    ASSERT_EQ(keyview_host_set_registry(url.c_str()), 0);
    {
        client keys;
        locker locks;
        store *same = open_backend(url, open_mode::existing).keys.get();
        auto trips = [&, before = same->round_trips()]() mutable {
            uint64_t all = same->round_trips() - before;
            before += all;
            return all;
        };
        ASSERT_EQ(locks.shared("LKRT.none"), 0);
        ASSERT_EQ(locks.unlock("LKRT.none"), 0);
        EXPECT_EQ(trips(), 3U) << "the first lock brings the lease";
        for (int n = 0; n < 3; ++n) {
            ASSERT_EQ(locks.shared("LKRT.DATABASE.DATABASES.sales"), 0);
            EXPECT_EQ(keys.read(key), "old");
            EXPECT_EQ(keys.read(key + ".none"), "(4)");
            EXPECT_EQ(keys.list("DATABASE.DATABASES.sales"), "1:A 0:L (16)0");
            EXPECT_EQ(keys.read("DATABASE.DATABASES.sales.L.x.y"), "deep");
            ASSERT_EQ(locks.unlock("LKRT.DATABASE.DATABASES.sales"), 0);
            EXPECT_EQ(trips(), 2U);
        }
        // A lock that is granted within a change set in pieces brings nothing. Then the first read brings all.
        for (bool in_pieces : {false, true}) {
            if (in_pieces) store_raw("/apply", "a marker");
            ASSERT_EQ(locks.shared("LKRT.DATABASE.DATABASES.sales"), 0);
            store_raw("/apply", std::nullopt);
            (void)trips();
            EXPECT_EQ(keys.read(key), "old");
            EXPECT_EQ(trips(), in_pieces ? 1U : 0U);
            EXPECT_EQ(keys.list("DATABASE.DATABASES.sales.L"), "0:x (16)0");
            EXPECT_EQ(keys.read("DATABASE.DATABASES.sales.L.x.y"), "deep");
            EXPECT_EQ(trips(), 0U);
            ASSERT_EQ(locks.unlock("LKRT.DATABASE.DATABASES.sales"), 0);
            (void)trips();
        }
        ASSERT_EQ(locks.exclusive("LKRT.DATABASE.DATABASES.sales"), 0);
        EXPECT_EQ(keys.set(key, "new"), 0);
        EXPECT_EQ(keys.read(key), "new");
        ASSERT_EQ(locks.unlock("LKRT.DATABASE.DATABASES.sales"), 0);
        EXPECT_EQ(trips(), 3U);
        ASSERT_EQ(locks.shared("LKRT.DATABASE.DATABASES"), 0);
        EXPECT_EQ(keys.list("DATABASE.DATABASES"), "0:sales (16)0");
        ASSERT_EQ(locks.unlock("LKRT.DATABASE.DATABASES"), 0);
        EXPECT_EQ(trips(), 2U);
    }
    EXPECT_EQ(keyview_host_set_registry(nullptr), 0);
    EXPECT_EQ(value_at(theirs, key), "new");
}

// Those of a lock with its part of the tree: one takes it, one releases it.
TEST_F(Cluster, LocksTakeTwoRoundTrips) {
    mine.keys->apply({put("a.b", "v"), put("a.c.d", "w")});
    take(mine, lock_mode::shared, 0);  // brings the lease
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        for (reach part : {reach::children, reach::all_below}) {
            const uint64_t before = mine.keys->round_trips();
            {
                auto held = mine.locks->acquire("LKRT.a", mode, 0, {"a", part});
                auto seen = held->as_of_grant();
                ASSERT_NE(seen, nullptr);
                std::string value;
                EXPECT_TRUE(seen->read("a.b", &value));
                EXPECT_FALSE(seen->read("a.x", &value));
                snapshot list("a", reach::children), all("a.c", reach::all_below);
                EXPECT_TRUE(seen->copy("a", reach::children, &list));
                if (part == reach::all_below) {
                    EXPECT_TRUE(seen->copy("a.c", reach::all_below, &all));
                    EXPECT_TRUE(seen->read("a.c.d", &value));
                }
            }
            EXPECT_EQ(mine.keys->round_trips() - before, 2U);
        }
    }
}

TEST_F(Cluster, LocksExcludeEachOtherByMode) {
    for (lock_mode first : {lock_mode::shared, lock_mode::exclusive}) {
        for (lock_mode second : {lock_mode::shared, lock_mode::exclusive}) {
            for (const backend &other : {mine, theirs}) {
                auto held = take(mine, first, 1000);
                bool both = first == lock_mode::shared && second == lock_mode::shared;
                auto attempt = [&] { take(other, second, 0); };
                if (both) attempt();
                if (!both)
                    expect_failure(attempt, failure::lock, "process " + std::to_string(getpid()),
                                   0);
            }
            EXPECT_NO_THROW(take(theirs, lock_mode::exclusive, 0)) << "a try leaves nothing behind";
        }
    }
}

// The queue keeps the order of arrival: no reader passes a waiting writer.
TEST_F(Cluster, WaitersAreServedInOrder) {
    auto held = take(mine, lock_mode::shared, 1000);
    std::string order;
    std::mutex guard;
    std::vector<std::thread> waiters;
    for (char who : std::string("wrRw")) {
        waiters.emplace_back([&, who] {
            auto lock = take(who == 'R' ? mine : theirs,
                             who == 'w' ? lock_mode::exclusive : lock_mode::shared, DEADLINE_MS);
            std::lock_guard one(guard);
            order += who == 'R' ? 'r' : who;
        });
        usleep(100000);
    }
    EXPECT_EQ(order, "");
    held.reset();
    for (std::thread &one : waiters)
        one.join();
    EXPECT_EQ(order, "wrrw");
}

TEST_F(Cluster, WaitingReadersAreServedTogether) {
    auto held = take(mine, lock_mode::exclusive, 1000);
    std::atomic<int> reading{0};
    std::vector<std::thread> readers;
    for (const backend &from : {mine, theirs}) {
        readers.emplace_back([&, from] {
            auto lock = take(from, lock_mode::shared, DEADLINE_MS);
            ++reading;
            for (int n = 0; n < 300 && reading < 2; ++n)
                usleep(10000);
            EXPECT_EQ(reading, 2);
        });
    }
    await_users(3);
    held.reset();
    for (std::thread &one : readers)
        one.join();
}

// It asks again only when the nearest entry before its own is gone, although that is not the one that
// holds the lock, and other locks of its program have nothing to do with that.
TEST_F(Cluster, WaitersWaitForEachEarlierEntry) {
    auto other = theirs.locks->acquire("LKRT.other", lock_mode::exclusive, 0);
    enter("LKRT.a", "w/b");
    enter("LKRT.a", "w/a");
    uint64_t before = theirs.keys->round_trips();
    std::atomic<bool> granted{false};
    std::thread waiter([&] {
        auto lock = take(theirs, lock_mode::exclusive, DEADLINE_MS);
        granted = true;
        EXPECT_LE(theirs.keys->round_trips() - before, 5U) << "to enter, to wait and to look twice";
        EXPECT_TRUE(lock->still_held() && other->still_held());
    });
    await_users(4);
    usleep(200000);
    leave("LKRT.a", "w/a");
    usleep(300000);
    EXPECT_FALSE(granted);
    leave("LKRT.a", "w/b");
    EXPECT_LT(seconds_of([&] { waiter.join(); }), 2);
}

// A transaction compares a part of them.
TEST_F(Cluster, WaitersWaitForManyReaders) {
    auto other = theirs.locks->acquire("LKRT.other", lock_mode::exclusive, 0);
    auto enter_all = [&](const std::string &head) {
        connection calls(settings_of(url));
        wire::TxnRequest request;
        for (int n = 0; n < 110; ++n)
            add_put(request.mutable_success(),
                    prefix + "/lk/LKRT.a" + '\0' + head + std::to_string(n), "a reader");
        (void)calls.txn(request, calls.answer_end());
    };
    enter_all("r/early");
    enter_all("r/late");
    std::atomic<bool> granted{false};
    std::thread waiter([&] {
        auto lock = take(theirs, lock_mode::exclusive, DEADLINE_MS);
        granted = true;
        EXPECT_TRUE(lock->still_held() && other->still_held());
    });
    await_users(222);
    for (const char *gone : {"r/late", "r/early"}) {
        EXPECT_FALSE(granted) << gone;
        leave("LKRT.a", gone);
        usleep(300000);
    }
    waiter.join();
}

// The first that entered holds the lock, whatever the order of the keys; all locks wait for the last one.
TEST_F(Cluster, WaitsReportWhatTheyWaitFor) {
    take(theirs, lock_mode::shared, 0);  // brings the lease
    enter("LKRT.a", "w/b");
    enter("LKRT.a", "w/a");
    std::string told, text;
    const auto add = [](void *to, keyview_bytes name, keyview_bytes holder) {
        *static_cast<std::string *>(to) +=
            std::string(name.data, name.size) + ":" + std::string(holder.data, holder.size) + " ";
    };
    observe_waits(add, &told);
    const uint64_t before = theirs.keys->round_trips();
    EXPECT_EQ(failure_of([&] { take(theirs, lock_mode::shared, 300); }, &text), failure::lock);
    EXPECT_NE(text.find("held by w/b"), text.npos) << text;
    EXPECT_EQ(failure_of([&] { theirs.locks->acquire_all(300); }, &text), failure::lock);
    EXPECT_NE(text.find("held by w/a"), text.npos) << text;
    observe_waits(nullptr, nullptr);
    EXPECT_EQ(told, "LKRT.a:w/b LKRT.a: *:w/a *: ");
    EXPECT_LT(theirs.keys->round_trips() - before, 20U) << "without a pause";
}

TEST_F(Cluster, WaitersAreThoseThatCannotShare) {
    const struct {
        const char *first, *first_entry, *second, *second_entry;
        bool waits;
    } ROWS[] = {{"a", "r/b", "a", "r/a", false}, {"a", "r/b", "a", "w/a", true},
                {"a", "w/b", "a", "r/a", true},  {"a", "w/b", "a", "w/a", true},
                {"b", "w/b", "a", "w/a", false}, {"b", "w/b", "*", "w/a", true},
                {"b", "r/b", "*", "w/a", true},  {"*", "w/b", "a", "r/a", true}};
    for (const auto &row : ROWS) {
        enter(row.first, row.first_entry);
        enter(row.second, row.second_entry);
        const std::vector<lock_use> users = mine.locks->users({});
        ASSERT_EQ(users.size(), 2U);
        const std::string found = users[0].name + users[0].holder + users[1].name + users[1].holder;
        EXPECT_EQ(found, std::string(row.first) + row.first_entry + row.second + row.second_entry);
        EXPECT_FALSE(users[0].waits) << found;
        EXPECT_EQ(users[1].waits, row.waits) << found;
        store_raw("/lk/", std::nullopt, true);
    }
}

// The one that holds it, not one that waits before.
TEST_F(Cluster, AWaitNamesTheHolder) {
    mine.keys->apply({put("a", "")});
    child_process holder([&](const meeting &) {
        return execl(KEYVIEWCTL, KEYVIEWCTL, "--registry", url.c_str(), "lock", "run", "--any-name",
                     "LKRT.a", "sleep", "60", nullptr);
    });
    auto users = [&] { return mine.locks->users({}); };
    for (int n = 0; n < 500 && users().empty(); ++n)
        usleep(10000);
    std::thread waiter([&] { EXPECT_NO_THROW(take(mine, lock_mode::exclusive, DEADLINE_MS)); });
    for (int n = 0; n < 500 && users().size() < 2; ++n)
        usleep(10000);
    const std::string known = "keyviewctl, process " + std::to_string(holder.pid) + " on ";
    std::string text;
    failure_of([&] { take(theirs, lock_mode::shared, 100); }, &text);
    EXPECT_NE(text.find("held by " + known), text.npos) << text;
    EXPECT_NE(text.find(SINCE), text.npos) << text;
    failure_of([&] { theirs.locks->acquire_all(100); }, &text);
    EXPECT_NE(text.find("held by "), text.npos) << text;
    kill(holder.pid, SIGTERM);
    waiter.join();
}

// All locks as one follow each lock that is held and precede each later one, whatever its name; a
// holder that goes on to a further lock is let through.
TEST_F(Cluster, AllLocksAtOnceExcludeEachName) {
    auto held = mine.locks->acquire("a", lock_mode::shared, 1000);
    EXPECT_THROW(theirs.locks->acquire_all(100), host_error);
    std::thread waiter([&] {
        auto all = theirs.locks->acquire_all(DEADLINE_MS);
        for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive})
            EXPECT_THROW(mine.locks->acquire("c", mode, 50), host_error);
        EXPECT_THROW(mine.locks->acquire_all(50), host_error);
        EXPECT_EQ(theirs.keys->apply({put("a.b", "x")}, {{all.get()}, 0}).created, 2U);
    });
    usleep(100000);
    EXPECT_NO_THROW(mine.locks->acquire("c", lock_mode::exclusive, DEADLINE_MS));
    std::vector<lock_use> users;
    while (users.size() < 2)  // it gives up its entry now and then
        users = mine.locks->users({});
    EXPECT_TRUE(!users[0].waits && users[1].waits && users[1].name == model::ALL_LOCKS);
    held.reset();
    waiter.join();
    EXPECT_NO_THROW(mine.locks->acquire_all(1000));
}

// Their entry goes at the moment at which the last other lock goes: they are asked for anew.
TEST_F(Cluster, AllLocksAreNotGrantedWithoutTheirEntry) {
    enter("a", "w/a");
    std::thread waiter([&] {
        auto all = theirs.locks->acquire_all(DEADLINE_MS);
        EXPECT_NO_THROW(theirs.keys->apply({put("b")}, {{all.get()}, 0}));
    });
    await_users(2);
    store_raw("/lk/", std::nullopt, true);
    waiter.join();
}

TEST_F(Cluster, LocksWaitBehindThoseOfTheirNameOnly) {
    auto held = mine.locks->acquire("a", lock_mode::exclusive, 1000);
    auto other = mine.locks->acquire("b", lock_mode::exclusive, 1000);
    std::thread waiter(
        [&] { EXPECT_NO_THROW(theirs.locks->acquire("a", lock_mode::shared, DEADLINE_MS)); });
    std::vector<lock_use> users;
    while (users.size() < 3)
        users = mine.locks->users({});
    std::string waiting;
    for (const lock_use &use : users)
        if (use.waits) waiting += use.name;
    EXPECT_EQ(waiting, "a");
    held.reset();
    waiter.join();
}

TEST_F(Cluster, AGrantReadsTheTreeOfItsMoment) {
    mine.keys->apply({put("a.b", "old")});
    auto held = take(mine, lock_mode::exclusive, 1000);
    const int64_t first = dynamic_cast<etcd_lock &>(*held).entry()->granted;
    EXPECT_GT(first, 0);
    std::thread waiter([&] {
        auto lock = take(theirs, lock_mode::shared, DEADLINE_MS);
        EXPECT_GT(dynamic_cast<etcd_lock &>(*lock).entry()->granted, first) << "for later checks";
        uint64_t before = theirs.keys->round_trips();
        std::unique_ptr<moment> seen = lock->as_of_grant();
        std::string value;
        EXPECT_TRUE(seen->read("a.b", &value));
        EXPECT_EQ(value, "new");
        EXPECT_EQ(theirs.keys->round_trips(), before);
    });
    usleep(200000);
    EXPECT_TRUE(mine.keys->set("a.b", "new", held.get()));
    held.reset();
    waiter.join();
}

// Nothing if it does not know how deep the tree is, or within a change set in pieces.
TEST_F(Cluster, AGrantBringsTheWholePartOrNothing) {
    const std::string deep = "a.2.3.4.5.6.7.8.9";  // by one more than a new session assumes
    auto brought = [&](bool waits) {
        std::string value = "nothing";
        auto held = waits ? take(theirs, lock_mode::exclusive, 1000) : nullptr;
        std::thread reader([&] {
            auto lock = take(mine, lock_mode::shared, DEADLINE_MS);
            auto seen = lock->as_of_grant();
            if (seen == nullptr) return;
            EXPECT_FALSE(seen->read(deep + ".x", &value));
            EXPECT_TRUE(seen->read(deep, &value));
        });
        if (waits) await_users(2);
        held.reset();
        reader.join();
        return value;
    };
    theirs.keys->apply({put(deep, "v")});
    for (bool waits : {false, true})
        EXPECT_EQ(brought(waits), "nothing");
    snapshot all("a", reach::all_below);
    EXPECT_TRUE(mine.keys->now()->copy("a", reach::all_below, &all));
    EXPECT_EQ(all.size(), 9U);
    for (bool waits : {false, true}) {
        EXPECT_EQ(brought(waits), "v");
        store_raw("/apply", "a marker");
        EXPECT_EQ(brought(waits), "nothing");
        store_raw("/apply", std::nullopt);
    }
}

// By a program that never reads without a lock.
TEST_F(Cluster, TheHistoryKeepsItsLimit) {
    const setting limit{"KEYVIEW_HISTORY", "2560"};  // ten entries
    mine.keys->apply({put("a.b")});
    std::string replaced;
    for (int n = 0; n < 20; ++n) {
        auto held = take(mine, lock_mode::exclusive, 1000);
        EXPECT_TRUE(mine.keys->set("a.b", std::to_string(n), held.get(), &replaced));
    }
    EXPECT_LE(keys_below("/kv/\1" + std::string(HISTORY_HEAD)), 12);
}

// Even if the revision that it waits from is compacted meanwhile.
TEST_F(Cluster, CompactionBreaksNoWaitAndIsReported) {
    mine.keys->apply({put("a.b", "0")});
    auto old = mine.keys->now();
    uint64_t revision = old->current().tree;
    auto held = take(mine, lock_mode::exclusive, 1000);
    std::thread waiter([&] { EXPECT_NO_THROW(take(theirs, lock_mode::exclusive, DEADLINE_MS)); });
    usleep(200000);
    for (int n = 1; n < 5; ++n)
        EXPECT_TRUE(mine.keys->set("a.b", std::to_string(n), held.get()));
    uint64_t now = mine.keys->now()->current().tree;
    ASSERT_GT(now, revision);
    etcdctl(shared_members(), "compaction " + std::to_string(now));
    held.reset();
    waiter.join();
    std::string value;
    expect_failure([&] { old->read("a.b", &value); }, failure::changed, "compacted", 1);
}

// One line for each change from first to the present: "revision - first: key before > after".
static std::string changes_from(const backend &from, const std::string &path, uint64_t first) {
    std::string out;
    const uint64_t last = from.keys->now()->current().tree;
    for (uint64_t since = first; since < last;) {
        auto batch = from.keys->changes_since(path, since, std::chrono::milliseconds(500));
        for (const tree_change &one : batch.value().changes) {
            out += std::to_string(one.revision - first) + ": " + one.path + " " +
                   one.before.value_or("-") + " > " + one.after.value_or("-") + "\n";
        }
        since = batch->up_to;
    }
    return out;
}

TEST_F(Cluster, ChangesAreReportedFromAnyKeptRevision) {
    mine.keys->apply({put("a.b", "0"), put("c", "0")});
    uint64_t first = mine.keys->now()->current().tree;
    theirs.keys->apply({put("a.b", "1"), put("a.b.x", "2"), put("c", "2")});
    EXPECT_TRUE(theirs.keys->set("c", "3", nullptr));
    theirs.keys->apply({removal("a.b")});
    EXPECT_EQ(changes_from(mine, "a", first),
              "1: a.b 0 > 1\n1: a.b.x - > 2\n3: a.b 1 > -\n3: a.b.x 2 > -\n");
    EXPECT_EQ(changes_from(mine, "a.b.x", first + 1), "2: a.b.x 2 > -\n");
    EXPECT_EQ(changes_from(mine, "c", first), "1: c 0 > 2\n2: c 2 > 3\n");
    etcdctl(shared_members(), "compaction " + std::to_string(first + 2));
    expect_failure([&] { changes_from(mine, "c", first); }, failure::changed, "keeps its changes",
                   1);
    EXPECT_EQ(changes_from(mine, "a", first + 2), "1: a.b 1 > -\n1: a.b.x 2 > -\n");
}

// Locks move the revision of the cluster and not that of the tree.
TEST_F(Cluster, OnlyAMissedChangeIsAGap) {
    mine.keys->apply({put("a.b", "0")});
    mine.keys->apply({put("a.b", "1")});
    const uint64_t changed = mine.keys->now()->current().tree;
    take(mine, lock_mode::shared, 0);
    int64_t granted = dynamic_cast<etcd_lock &>(*take(mine, lock_mode::shared, 0)).entry()->granted;
    ASSERT_GT(granted, static_cast<int64_t>(changed));
    etcdctl(shared_members(), "compaction " + std::to_string(granted));
    const uint64_t before = theirs.keys->round_trips();
    backend again = open_cluster(other_url(), open_mode::existing);
    auto batch = again.keys->changes_since("a", changed, std::chrono::milliseconds(300));
    EXPECT_TRUE(batch->changes.empty());
    EXPECT_EQ(batch->up_to, changed);
    EXPECT_LE(theirs.keys->round_trips() - before, 5U) << "and no lease";
    std::thread writer([&] {
        usleep(100000);
        mine.keys->set("a.b", "2", nullptr);
    });
    batch = again.keys->changes_since("a", changed, std::chrono::milliseconds(DEADLINE_MS));
    writer.join();
    ASSERT_EQ(batch->changes.size(), 1U);
    EXPECT_EQ(batch->changes[0].before, "1");

    std::string watch = KEYVIEWCTL " --registry " + url + " watch a -o jsonl --for 1 --from ";
    run("test $(" + watch + std::to_string(changed) + " | grep -vc '\"gap\"') = 1");
    run("test $(" + watch + std::to_string(changed) + " | grep -c '\"gap\"') = 0");
    run("test $(" + watch + std::to_string(changed - 1) + " | grep -c '\"gap\"') = 1");
}

// The contract of hosts, over the module.
// With sanitizers, the module has more thread-local storage than is kept for what is loaded late.
TEST_F(Cluster, TheKitKeepsTheContract) {
    run("export GLIBC_TUNABLES=glibc.rtld.optional_static_tls=65536 KEYVIEW_REGISTRY=" + url +
        "; " KEYVIEWCTL " apply " EXAMPLE_DOCUMENT " && " HOSTTEST " " KIT);
}

// keyviewctl over the module, with both kinds of registry side by side.
TEST_F(Cluster, TheToolWorksOnAnyRegistry) {
    scratch_directory folder;
    std::string script =
        "set -e; cd " + folder.path +
        "; tool=" KEYVIEWCTL
        "; here='--registry lmdb:here'; export XDG_STATE_HOME=$PWD KEYVIEW_REGISTRY=" +
        url + "\n" + R"(
        $tool apply $here )" EXAMPLE_DOCUMENT R"(; $tool export $here first
        $tool copy $here --to $KEYVIEW_REGISTRY; $tool export second; cmp first second
        $tool backup saved; $tool diff saved; $tool diff $here saved; $tool lint; $tool check; $tool status sales
        first=$($tool backup - | sed -n 's/revision //p')
        $tool disable sales --service reporting
        ! $tool diff first || exit 1
        code=0; $tool apply first --if-revision $first || code=$?; test $code = 6
        lock='LKRT.DATABASE.DATABASES.sales'
        code=0; $tool lock run $lock -- $tool set DATABASE.DATABASES.sales.DOMAIN x --yes || code=$?
        $tool watch --from $first --count 2 -o jsonl > told
        grep -c '"path":"DATABASE.DATABASES.sales.SERVICE.reporting.*"after":"false' told
        code=0; $tool watch --from 999999 || code=$?; test $code = 2
        $tool rm DATABASE --yes; $tool restore saved; $tool diff saved
        $tool export third; cmp first third
        $tool copy --to lmdb:back; $tool diff saved --registry lmdb:back)";
    setting wait("KEYVIEW_LOCK_WAIT", "1");
    run(script);
}

// Bytes that no reader takes, in one key of each kind: the other databases are shown, and all of them
// are saved but what nobody can express.
TEST_F(Cluster, OneMisfitTakesNothingElseWithIt) {
    scratch_directory folder;
    std::string script =
        "set -e; cd " + folder.path +
        "; tool=" KEYVIEWCTL "; export XDG_STATE_HOME=$PWD KEYVIEW_REGISTRY=" + url + "\n" + R"(
        $tool apply )" EXAMPLE_DOCUMENT R"(; $tool backup saved
        long=$(head -c 2000 /dev/zero | tr '\0' x | base64 -w0)
        fails() { code=0; "$@" || code=$?; test $code = 8; }
        for key in "" .SPFILE .ROLE .ENABLED .ENVIRONMENT .INSTANCE.sales1 .INSTANCE.sales1.NODE \
                .SERVICE.reporting .SERVICE.reporting.RCNPOLICY .SERVICE.reporting.INSTANCES.sales4.TYPE; do
            $tool set DATABASE.DATABASES.sales$key --as base64 -- $long
            code=0; $tool status > state || code=$?; test $code = 0 || test $code = 8
            grep -q '^ledger  *enabled' state; grep -q '^SalesStandby  *enabled' state
            $tool show ledger > shown; fails $tool lint; fails $tool export > none; test ! -s none
            fails $tool export --salvage part.json; $tool apply part.json --registry lmdb:copy; rm -r copy part.json
            $tool backup whole; $tool diff whole; $tool restore saved --force --yes
        done)";
    run(script);
}

// The lease of the session is revoked, as after a stop beyond its time.
TEST_F(Cluster, AfterALostLeaseNothingIsWrittenAndNewLocksWork) {
    mine.keys->apply({put("a.b")});
    auto held = take(mine, lock_mode::exclusive, 1000);
    EXPECT_TRUE(mine.keys->set("a.b", "old", held.get())) << "its entry stays under the lease";
    std::string leases = "ETCDCTL_API=3 etcdctl --endpoints=" + shared_members().address(0) +
                         " get --prefix " + prefix + "/lk/ -w fields | sed -n 's/\"Lease\" : //p'";
    run("lease=$(" + leases + "); ETCDCTL_API=3 etcdctl --endpoints=" +
        shared_members().address(0) + " lease revoke $(printf %x $lease)");
    expect_failure([&] { mine.keys->set("a.b", "new", held.get()); }, failure::lock,
                   "the cluster lock was lost", 0);
    expect_failure(
        [&] {
            mine.keys->apply({put("a.b", "new")}, {{held.get()}, 0});
        },
        failure::lock, "nothing was written", 0);
    EXPECT_EQ(value_at(mine, "a.b"), "old");
    auto again = take(mine, lock_mode::exclusive, 1000);
    EXPECT_FALSE(held->still_held()) << "as the new one needed another lease";
    EXPECT_TRUE(mine.keys->set("a.b", "new", again.get()));
}

// Its lease is revoked, so that its entry is gone when the lock becomes free: it waits in the queue anew.
TEST_F(Cluster, AWaiterWithoutItsEntryIsNotGranted) {
    mine.keys->apply({put("a.b", "old")});
    auto held = take(mine, lock_mode::exclusive, 1000);
    std::thread waiter([&] {
        auto lock = take(theirs, lock_mode::exclusive, DEADLINE_MS);
        EXPECT_TRUE(lock->still_held());
        EXPECT_NO_THROW(theirs.keys->set("a.b", "new", lock.get()));
    });
    while (mine.locks->users({}).size() < 2)
        usleep(10000);
    const std::string tool =
        "ETCDCTL_API=3 etcdctl --endpoints=" + shared_members().address(0) + " ";
    run("lease=$(" + tool + "get --prefix " + prefix +
        "/lk/ --sort-by=CREATE -w fields | sed -n 's/\"Lease\" : //p' | tail -n 1); " + tool +
        "lease revoke $(printf %x $lease)");
    held.reset();
    waiter.join();
    EXPECT_EQ(value_at(mine, "a.b"), "new");
}

TEST_F(Cluster, ACompactedPieceIsAGap) {
    connection calls(settings_of(other_url()));
    auto moved = [&] {
        wire::TxnRequest request;
        add_put(request.mutable_success(), "/beside", "");
        return static_cast<uint64_t>(calls.txn(request, calls.answer_end()).header().revision());
    };
    std::vector<change> many = {put("a")};
    for (int n = 0; n < 150; ++n)
        many.push_back(put("a.k" + std::to_string(n)));
    uint64_t begun = 0;
    int steps = 0;
    faults.before_step = [&] {
        if (steps == 0) begun = moved();
        if (steps == 1) etcdctl(shared_members(), "compaction " + std::to_string(moved()));
        ++steps;
    };
    mine.keys->apply(many);
    faults.before_step = nullptr;
    expect_failure([&] { theirs.keys->changes_since("a", begun, std::chrono::milliseconds(300)); },
                   failure::changed, "keeps its changes", 1);
}

// One recovery pauses at each of its steps while another one in the other direction is stopped at
// each of its own: the first one reports success only if nothing is left to recover.
TEST_F(Cluster, ARecoveryBesideAnotherOneIsNeverTakenForDone) {
    constexpr int KEYS = 150;
    std::vector<change> old = {put("t")}, fresh = {put("t")};
    for (int n = 0; n < KEYS; ++n) {
        old.push_back(put("t.k" + std::to_string(n), "old"));
        fresh.push_back(put("t.k" + std::to_string(n), "new"));
    }
    constexpr int STEPS = 2 + 1;  // pieces, and the end
    auto expect_all = [&](const std::string &value) {
        snapshot all("t", reach::all_below);
        EXPECT_TRUE(mine.keys->now()->copy("t", reach::all_below, &all));
        for (uint32_t n = 1; n < all.size(); ++n)
            ASSERT_EQ(all.value(n), value);
    };
    struct {
        finish first, second;
        const char *value;  // after the first one
    } const ROWS[] = {{finish::undo, finish::resume, "old"}, {finish::resume, finish::undo, "new"}};
    int refused = 0, done = 0;
    for (const auto &row : ROWS) {
        for (int run = 0; run < STEPS * STEPS * STEPS; ++run) {
            int pieces = run % STEPS, held_at = run / STEPS % STEPS,
                stopped_at = run / STEPS / STEPS;
            SCOPED_TRACE(std::to_string(pieces) + " pieces, held at " + std::to_string(held_at) +
                         ", beside one stopped at " + std::to_string(stopped_at));
            mine.keys->apply(old);
            ASSERT_FALSE(stop_after(pieces, [&] { mine.keys->apply(fresh); }));
            int steps = 0;
            faults.before_step = [&] {
                if (steps++ != held_at) return;
                stop_after(stopped_at, [&] { theirs.keys->finish_apply(row.second); });
            };
            failure refusal = failure::internal;
            try {
                EXPECT_TRUE(mine.keys->finish_apply(row.first));
                ++done;
            } catch (const host_error &error) {
                refusal = error.kind;
                ++refused;
            }
            faults.before_step = nullptr;
            EXPECT_TRUE(refusal == failure::internal || refusal == failure::changed);
            bool is_left = mine.keys->finish_apply(row.first);
            EXPECT_FALSE(is_left && refusal == failure::internal) << "it was taken for done";
            if (is_left || refusal == failure::internal) expect_all(row.value);
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(done, 0);
}

// Readers wait for the end of a change set, and report it if no program continues it.
TEST_F(Cluster, AHalfAppliedChangeSetIsResumedOrUndone) {
    constexpr int KEYS = 450;
    auto all_are = [&](const std::string &value) {
        snapshot all("t", reach::all_below);
        EXPECT_TRUE(theirs.keys->now()->copy("t", reach::all_below, &all));
        for (uint32_t n = 1; n < all.size(); ++n)
            EXPECT_EQ(all.value(n), value);
        return all.size();
    };
    std::vector<change> old = {put("t")};
    std::vector<change> fresh = {put("t"), removal("t.k0"), put("t.new", "new")};
    for (int n = 0; n < KEYS; ++n) {
        old.push_back(put("t.k" + std::to_string(n), "old"));
        if (n > 0) fresh.push_back(put("t.k" + std::to_string(n), "new"));
    }
    EXPECT_EQ(mine.keys->apply(old).created, KEYS + 1U);
    auto entries = [&] {
        std::vector<history_entry> all;
        mine.keys->history(0, [&](const history_entry &one) {
            all.push_back(one);
            return true;
        });
        return all;
    };
    setting wait("KEYVIEW_ANSWER_WAIT", "1");
    backend told = open_cluster(url);
    for (finish how : {finish::undo, finish::resume}) {
        for (int pieces : {0, 2, 4}) {
            stop_after(pieces, [&] { mine.keys->apply(fresh); });
            if (pieces == 2) {
                std::string text = "after 2 of 5 pieces";
                expect_failure([&] { value_at(told, "t"); }, failure::content, text, 1);
                expect_failure([&] { told.keys->apply({put("x")}); }, failure::content, text, 1);
                auto held = take(told, lock_mode::exclusive, 0);
                expect_failure([&] { told.keys->set("t", "x", held.get()); }, failure::content,
                               text, 1);
            }
            std::thread reader(
                [&] { EXPECT_EQ(all_are(how == finish::undo ? "old" : "new"), KEYS + 1U); });
            usleep(20000);
            const size_t before = entries().size();
            EXPECT_TRUE(mine.keys->finish_apply(how));
            EXPECT_FALSE(mine.keys->finish_apply(how));
            reader.join();
            const std::vector<history_entry> after = entries();
            const bool resumed = how == finish::resume;
            EXPECT_EQ(after.size(), before + (resumed ? 1 : 0));
            EXPECT_TRUE(!resumed || after.front().changes.size() == KEYS + 1U) << "as one change";
            if (how == finish::resume) mine.keys->apply({put("t.k0", "new"), removal("t.new")});
            if (how == finish::resume) mine.keys->apply(old);
        }
    }
    change_counts counts = mine.keys->apply(fresh);
    EXPECT_EQ(counts.created, 1U);
    EXPECT_EQ(counts.removed, 1U);
    EXPECT_EQ(counts.replaced, KEYS - 1U);
    EXPECT_EQ(all_are("new"), KEYS + 1U);
}

// Small changes overtake a large one once, not again and again. If its program dies while it holds them
// off, there is nothing to resume and nothing to undo.
TEST_F(Cluster, ALargeChangeHoldsOffSmallOnes) {
    constexpr int KEYS = 150;
    auto all_with = [&](const std::string &value) {
        std::vector<change> all = {put("t")};
        for (int n = 0; n < KEYS; ++n)
            all.push_back(put("t.k" + std::to_string(n), value));
        return all;
    };
    mine.keys->apply(all_with("0"));
    for (const char *value : {"1", "2", "3"}) {
        beside_small_changes(
            [&] { EXPECT_EQ(mine.keys->apply(all_with(value)).replaced, KEYS + 0U); });
        EXPECT_EQ(value_at(theirs, "t.k149"), value);
    }
    setting wait("KEYVIEW_ANSWER_WAIT", "1");
    const backend told = open_cluster(url);
    int held_off = 0;
    for (int steps : {0, 5}) {  // the journal has four pieces and the entry of the history
        for (finish how : {finish::undo, finish::resume}) {
            mine.keys->apply(all_with("old"));
            beside_small_changes([&] {
                EXPECT_FALSE(stop_after(steps, [&] { mine.keys->apply(all_with("new")); }));
            });
            std::string text;
            EXPECT_EQ(failure_of([&] { value_at(told, "t"); }, &text), failure::content);
            const bool before_all = text.find("before its first piece") != text.npos;
            if (before_all) ++held_off;
            EXPECT_TRUE(mine.keys->finish_apply(how));
            const char *value = how == finish::undo || before_all ? "old" : "new";
            for (const char *key : {"t.k0", "t.k149"})
                EXPECT_EQ(value_at(theirs, key), value) << steps;
            mine.keys->history(0, [&](const history_entry &last) {
                EXPECT_FALSE(before_all && last.changes.front().path == "t.k0") << "not made";
                return false;
            });
        }
    }
    EXPECT_GT(held_off, 0);
    // One that fails meanwhile lets them go on.
    mine.keys->apply(all_with("old"));
    faults.before_step = [left = 3]() mutable {
        if (left-- == 0) throw std::bad_alloc();
    };
    beside_small_changes([&] {
        EXPECT_THROW(mine.keys->apply(all_with("new")), std::bad_alloc);
        EXPECT_EQ(value_at(told, "t.k0"), "old");
    });
    faults.before_step = nullptr;
    // One for a revision is refused when the tree moves while it is read or planned, and leaves no journal.
    const std::vector<change> changes = all_with("refused");
    for (int moves_in : {1, 2, 3, 4}) {
        int pass = 0;
        auto read = [&](size_t number) -> change_view {
            if (number == KEYS && ++pass == moves_in)
                theirs.keys->apply({put("t.k0", std::to_string(moves_in))});
            return {changes[number].what, changes[number].path, changes[number].value};
        };
        const change_source source = {changes.size(), read};
        const uint64_t wanted = mine.keys->now()->current().tree;
        EXPECT_EQ(failure_of([&] { mine.keys->apply(source, {{}, wanted}); }), failure::changed);
        EXPECT_EQ(value_at(mine, "t.k0"), std::to_string(moves_in));
        EXPECT_EQ(keys_below("/journal/"), 0) << moves_in;
    }
}

TEST_F(Cluster, DamageIsReportedAndNeverServed) {
    mine.keys->apply({put("a.b.c", "v")});
    const struct {
        std::string key;
        const char *told, *place;
    } ROWS[] = {{"\3a\1x\1y\1", "has no parent", "a.x.y"},
                {"\3a\1b\1y", "not the key of any path", "a.b.y"},
                {"\3a\1b\1yy", "not the key of any path", "a.b.yy"},
                {"\3a\1b\1", "not the key of any path", "a.b"},
                {"\3a\1b\1\5\1", "not the key of any path", "a.b.\5"},
                {"\3a\1b\1y.z\1", "not the key of any path", "a.b.y.z"},
                {"\2a\1b\1y\1", "not the key of any path", "a.b.y"}};
    for (const auto &row : ROWS) {
        store_raw("/kv/" + row.key, "v");
        snapshot all("a", reach::all_below);
        std::string text;
        EXPECT_EQ(failure_of([&] { mine.keys->now()->copy("a", reach::all_below, &all); }, &text),
                  failure::content)
            << row.key;
        EXPECT_NE(text.find("at '" + std::string(row.place) + "':"), text.npos) << text;
        EXPECT_NE(found_by_check().find(row.told), std::string::npos) << row.key;
        store_raw("/kv/" + row.key, std::nullopt);
    }
    for (const char *other : {"keyview 2 8", "keyview 1 101 x", "keyview 1 x", ""}) {
        store_raw("/tree", other);
        expect_failure([&] { value_at(mine, "a"); }, failure::content, "another format", 0);
    }
}

// A key of the cluster's own with another content, while a change set is half-way.
TEST_F(Cluster, DamagedStateOfAChangeSetIsReported) {
    const setting wait("KEYVIEW_ANSWER_WAIT", "1");
    const backend told = open_cluster(url);
    mine.keys->apply({put("a")});
    std::vector<change> many;
    for (int n = 0; n < 150; ++n)
        many.push_back(put("a.k" + std::to_string(n)));
    stop_after(1, [&] { mine.keys->apply(many); });
    auto finish_it = [&](finish how) { return [&told, how] { told.keys->finish_apply(how); }; };
    EXPECT_NE(found_by_check().find("after 1 of 2 pieces"), std::string::npos);
    store_raw("/journal/", std::nullopt, true);
    for (finish how : {finish::resume, finish::undo}) {
        expect_failure(finish_it(how), failure::content, "delete the key " + prefix + "/apply", 0);
    }
    journal::Marker beyond;
    beyond.set_next(1);
    for (const std::string &marker : {std::string("\x7f"), beyond.SerializeAsString()}) {
        store_raw("/apply", marker);
        expect_failure(finish_it(finish::undo), failure::content,
                       "marker of a change set is damaged", 0);
    }
    store_raw("/apply", "\x7f");
    expect_failure([&] { value_at(told, "a"); }, failure::content, "is damaged", 1);
    store_raw("/apply", std::nullopt);  // what the failure advises
    told.keys->apply(many);
    EXPECT_EQ(value_at(mine, "a.k149"), "");
}

// Keys that are no entries of a queue are not listed, and no entries of the history are reported.
TEST_F(Cluster, KeysOfSomebodyElseAreNoEntries) {
    for (const std::string &key :
         {std::string("/lk/"), std::string("/lk/x"), std::string("/lk/x\0", 6)})
        store_raw(key, "v");
    EXPECT_TRUE(mine.locks->users({}).empty());
    store_raw("/kv/\1" + std::string(HISTORY_HEAD) + "1\1", "v");
    expect_failure([&] { mine.keys->history(0, [](const history_entry &) { return true; }); },
                   failure::content, "the history is damaged at revision", 0);
}

TEST_F(Cluster, APathIsNotTooDeepForATransaction) {
    std::string deep = "a";
    for (int n = 1; n < 100; ++n)
        deep += ".a";
    mine.keys->apply({put(deep, "v")});
    EXPECT_EQ(value_at(theirs, deep), "v");
    deep += ".a";
    expect_failure([&] { mine.keys->apply({put(deep)}); }, failure::usage, "100 elements at most",
                   0);
    EXPECT_EQ(value_at(mine, deep), "(none)");
    EXPECT_FALSE(mine.keys->set(deep, "v", nullptr));
    EXPECT_NO_THROW(mine.locks->acquire("x", lock_mode::exclusive, 0, {deep, reach::all_below}));
    EXPECT_EQ(mine.keys->apply({removal(deep), removal("a..b"), removal("a")}).removed, 100U);
}

TEST_F(Cluster, AForkedChildIsRefusedAndItsParentGoesOn) {
    mine.keys->apply({put("a.b", "v")});
    auto held = take(mine, lock_mode::exclusive, 1000);
    child_process child([&](const meeting &) {
        std::string text;
        bool refused = !held->still_held() &&
                       failure_of([&] { value_at(mine, "a.b"); }, &text) == failure::registry &&
                       text.find("forked") != text.npos;
        held.reset();  // must not release the lock of the parent
        mine = {};
        return refused && failure_of([&] { open_cluster(url + "2"); }) == failure::registry ? 0 : 1;
    });
    EXPECT_EQ(child.status(), 0);
    EXPECT_TRUE(mine.keys->set("a.b", "new", held.get()));
}

// What a member that is wrong may reply: callers index the results of what they asked for.
TEST(Replies, AReplyWithoutItsResultsIsNotUsed) {
    wire::TxnRequest asked;
    add_range(asked.mutable_success(), {"a", ""});
    add_range(asked.mutable_failure(), {"b", ""});
    wire::TxnResponse reply;
    for (const bool succeeded : {false, true}) {
        reply.set_succeeded(succeeded);
        EXPECT_FALSE(has_all_results(asked, reply)) << "without results";
    }
    reply.add_responses();
    EXPECT_TRUE(has_all_results(asked, reply));
    reply.set_succeeded(false);
    EXPECT_FALSE(has_all_results(asked, reply)) << "refused without a condition";
    require_there(&asked, "c");
    EXPECT_TRUE(has_all_results(asked, reply));
}

}  // namespace keyview::test
