// Named locks: who excludes whom, across threads, contexts and processes, and what death does.
#include <gtest/gtest.h>

#include <thread>

#include "process.h"
#include "registry.h"

namespace keyview::test {

class Locks : public RegistryTest {
  protected:
    // 0 or what the lock operation gave, without waiting.
    int32_t try_it(lock_mode mode, const char *name) {
        locker mine;
        return mode == lock_mode::shared ? mine.shared(name) : mine.exclusive(name);
    }
};

static constexpr const char *NAME = "LKRT.DATABASE.DATABASES.sales";

enum class where { same_thread, thread, process };

TEST_F(Locks, ExcludeEachOtherByMode) {
    keyview_host_set_lock_wait(0);
    for (where place : {where::same_thread, where::thread, where::process}) {
        for (lock_mode first : {lock_mode::shared, lock_mode::exclusive}) {
            for (lock_mode second : {lock_mode::shared, lock_mode::exclusive}) {
                locker holder;
                ASSERT_EQ(first == lock_mode::shared ? holder.shared(NAME) : holder.exclusive(NAME),
                          0);
                int32_t rc = -1;
                if (place == where::same_thread) rc = try_it(second, NAME);
                if (place == where::thread) std::thread([&] { rc = try_it(second, NAME); }).join();
                if (place == where::process) {
                    rc = child_process([&](const meeting &) {
                             return try_it(second, NAME);
                         }).status();
                }
                bool both = first == lock_mode::shared && second == lock_mode::shared;
                EXPECT_EQ(rc == 0, both) << int(place) << int(first) << int(second);
                EXPECT_EQ(holder.unlock(NAME), 0);
                EXPECT_EQ(try_it(lock_mode::exclusive, NAME), 0) << "released";
            }
        }
    }
}

TEST_F(Locks, DifferentNamesNeverTouch) {
    keyview_host_set_lock_wait(0);
    locker mine;
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(mine.exclusive((std::string(NAME) + std::to_string(i)).c_str()), 0) << i;
}

TEST_F(Locks, AWaitIsBoundedAndTellsWhy) {
    keyview_host_set_lock_wait(20);
    auto held = registry.locks->acquire(NAME, lock_mode::shared, 0);
    EXPECT_NE(try_it(lock_mode::exclusive, NAME), 0);
    EXPECT_NE(std::string(keyview_host_last_error()).find(NAME), std::string::npos);
    EXPECT_EQ(try_it(lock_mode::shared, NAME), 0) << "a writer that gave up leaves no gate closed";
}

TEST_F(Locks, OddCallsAreRefused) {
    keyview_host_set_lock_wait(0);
    locker mine;
    EXPECT_NE(mine.unlock(NAME), 0) << "never taken";
    EXPECT_NE(mine.shared(""), 0);
    EXPECT_NE(mine.shared(nullptr), 0);
    EXPECT_NE(mine.shared(std::string(3000, 'x').c_str()), 0);
    EXPECT_EQ(mine.exclusive(NAME), 0);
    EXPECT_NE(mine.exclusive(NAME), 0) << "a thread does not wait for itself";
    std::thread([&] { EXPECT_NE(mine.unlock(NAME), 0) << "another thread's"; }).join();
    EXPECT_EQ(mine.unlock(NAME), 0);
    EXPECT_NE(mine.unlock(NAME), 0) << "twice";

    void *dead = mine.lk;
    EXPECT_EQ(mine.exclusive(NAME), 0);
    EXPECT_EQ(lksvsterm(nullptr, dead), 0);
    EXPECT_EQ(try_it(lock_mode::exclusive, NAME), 0) << "released with the handle";
    EXPECT_NE(lksvlsshrlock(nullptr, dead, NAME), 0);
    EXPECT_NE(lksvsterm(nullptr, dead), 0);
    EXPECT_NE(lksvlsshrlock(nullptr, &dead, NAME), 0) << "no handle at all";
}

TEST_F(Locks, EndWithTheirThread) {
    keyview_host_set_lock_wait(0);
    locker mine;
    std::thread([&] { EXPECT_EQ(mine.exclusive(NAME), 0); }).join();
    EXPECT_EQ(try_it(lock_mode::exclusive, NAME), 0);
}

TEST_F(Locks, AKilledHolderSetsItsWaitersFree) {
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        child_process holder([&](const meeting &parent) {
            locker mine;
            int32_t rc = mode == lock_mode::shared ? mine.shared(NAME) : mine.exclusive(NAME);
            return rc != 0 || !parent.tell() || !parent.wait();
        });
        ASSERT_TRUE(holder.here.wait());
        keyview_host_set_lock_wait(0);
        EXPECT_NE(try_it(lock_mode::exclusive, NAME), 0);
        keyview_host_set_lock_wait(DEADLINE_MS);
        std::thread waiter([&] { EXPECT_EQ(try_it(lock_mode::exclusive, NAME), 0); });
        holder.kill_it();
        waiter.join();
    }
}

TEST_F(Locks, AForkedChildDoesNotKeepThem) {
    keyview_host_set_lock_wait(0);
    int lives_on[2];
    ASSERT_EQ(pipe(lives_on), 0);
    child_process holder([&](const meeting &parent) {
        locker mine;
        if (mine.exclusive(NAME) != 0) return true;
        if (fork() == 0) {  // lives until the test closes its pipe
            char byte;
            ::close(lives_on[1]);
            bool kept = mine.unlock(NAME) == 0;
            parent.tell();
            _exit(kept || read(lives_on[0], &byte, 1) != 0);
        }
        return !parent.wait();
    });
    ASSERT_TRUE(holder.here.wait());
    EXPECT_NE(try_it(lock_mode::exclusive, NAME), 0) << "the child's end of it released nothing";
    holder.kill_it();
    EXPECT_EQ(try_it(lock_mode::exclusive, NAME), 0);
    ::close(lives_on[1]);
    ::close(lives_on[0]);
}

// Readers that overlap all the time: without a gate the byte would hardly ever be free.
TEST_F(Locks, AWriterIsNotStarvedByReaders) {
    std::atomic<bool> stop{false};
    std::atomic<int> reads{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 6; ++i) {
        readers.emplace_back([&] {
            while (!stop) {
                auto held = registry.locks->acquire(NAME, lock_mode::shared, DEADLINE_MS);
                ++reads;
                std::this_thread::sleep_for(std::chrono::milliseconds(3));
            }
        });
    }
    for (int i = 0; i < 5; ++i) {
        int before = reads;
        while (reads < before + 10)
            std::this_thread::yield();
        EXPECT_NO_THROW(registry.locks->acquire(NAME, lock_mode::exclusive, 5000));
    }
    stop = true;
    for (std::thread &reader : readers)
        reader.join();
}

TEST_F(Locks, CountersUnderThemNeverLoseAStep) {
    constexpr int STEPS = 50;
    apply({put("DATABASE.DATABASES.sales", "0")});
    auto count = [&] {
        client keys;
        locker mine;
        for (int i = 0; i < STEPS; ++i) {
            if (mine.exclusive(NAME) != 0) return 1;
            int value = std::stoi(keys.read("DATABASE.DATABASES.sales"));
            if (keys.set("DATABASE.DATABASES.sales", std::to_string(value + 1)) != 0) return 2;
            if (mine.unlock(NAME) != 0) return 3;
        }
        return 0;
    };
    child_process first([&](const meeting &) { return count(); });
    child_process second([&](const meeting &) { return count(); });
    std::thread third([&] { EXPECT_EQ(count(), 0); });
    EXPECT_EQ(count(), 0);
    third.join();
    EXPECT_EQ(first.status(), 0);
    EXPECT_EQ(second.status(), 0);
    EXPECT_EQ(stored("DATABASE.DATABASES.sales"), std::to_string(4 * STEPS));
}

}  // namespace keyview::test
