// Named locks: which modes exclude each other, across threads, contexts and processes, and what
// death does.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "host/embedded/lock_offsets.h"
#include "host/if/keyview_registry.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr const char *NAME = "LKRT.DATABASE.DATABASES.sales";

class Locks : public RegistryTest {
  protected:
    Locks() { wait_for(0); }

    static void wait_for(int64_t ms) { EXPECT_EQ(keyview_host_set_lock_wait(ms), 0); }
    static int32_t try_it(lock_mode mode) { return locker().take(mode, NAME); }
    static bool is_free() { return try_it(lock_mode::exclusive) == 0; }
};

TEST_F(Locks, ExcludeEachOtherByMode) {
    enum { SAME_THREAD, THREAD, PROCESS };
    for (int where : {SAME_THREAD, THREAD, PROCESS}) {
        for (lock_mode first : {lock_mode::shared, lock_mode::exclusive}) {
            for (lock_mode second : {lock_mode::shared, lock_mode::exclusive}) {
                locker holder;
                ASSERT_EQ(holder.take(first, NAME), 0);
                int32_t rc = where == SAME_THREAD ? try_it(second) : -1;
                if (where == THREAD) std::thread([&] { rc = try_it(second); }).join();
                if (where == PROCESS) {
                    rc = child_process([&](const meeting &) { return try_it(second); }).status();
                }
                bool both = first == lock_mode::shared && second == lock_mode::shared;
                EXPECT_EQ(rc == 0, both) << where << int(first) << int(second);
                EXPECT_EQ(holder.unlock(NAME), 0);
                EXPECT_TRUE(is_free());
            }
        }
    }
}

TEST_F(Locks, AWaitIsBoundedAndTellsWhy) {
    wait_for(20);
    auto held = registry.locks->acquire(NAME, lock_mode::shared, 0);
    EXPECT_NE(try_it(lock_mode::exclusive), 0);
    const std::string text = keyview_host_last_error();
    EXPECT_NE(
        text.find("the exclusive lock " + std::string(NAME) + " was not granted within 20 ms"),
        text.npos)
        << text;
    EXPECT_EQ(try_it(lock_mode::shared), 0) << "a writer that gave up leaves no gate closed";
}

TEST_F(Locks, EachGivesItsDescriptorsBack) {
    auto open_after = [&](int waits) {
        for (; waits > 0; --waits) {
            auto held = registry.locks->acquire(NAME, lock_mode::exclusive, 0);
            EXPECT_THROW(registry.locks->acquire(NAME, lock_mode::shared, 1), host_error);
        }
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto few = open_after(3);
    EXPECT_EQ(open_after(40), few);
}

// The name of this program, which is another one under a tool that runs it.
static std::string own_name() {
    std::string name;
    std::getline(std::ifstream("/proc/self/comm"), name);
    return name;
}

// In the failure, in the list and while the wait lasts.
TEST_F(Locks, AWaitNamesTheHolder) {
    struct report {
        std::string name, holder;
    };
    std::vector<report> reports;
    auto add = [](void *to, keyview_bytes name, keyview_bytes holder) {
        static_cast<std::vector<report> *>(to)->push_back(
            {std::string(name.data, name.size), std::string(holder.data, holder.size)});
    };
    keyview_lock_observe_waits(add, &reports);
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        for (bool of_all : {false, true}) {
            if (of_all && mode == lock_mode::shared) continue;
            child_process holder([&](const meeting &parent) {
                backend mine = open_backend(url, open_mode::existing);
                auto held =
                    of_all ? mine.locks->acquire_all(0) : mine.locks->acquire(NAME, mode, 0);
                return !parent.tell() || !parent.wait();
            });
            ASSERT_TRUE(holder.here.wait());
            const std::string known = "process " + std::to_string(holder.pid) + " on ";
            std::string text;
            reports.clear();
            failure_of([&] { registry.locks->acquire(NAME, lock_mode::exclusive, 400); }, &text);
            EXPECT_NE(text.find("it is held by " + own_name() + ", " + known), text.npos) << text;
            EXPECT_NE(text.find(SINCE), text.npos) << text;
            ASSERT_EQ(reports.size(), 2U) << "its begin and its end";
            EXPECT_NE(reports[0].holder.find(known), text.npos) << reports[0].holder;
            EXPECT_EQ(reports[0].name + reports[1].name + reports[1].holder,
                      std::string(NAME) + NAME);
            reports.clear();
            failure_of([&] { registry.locks->acquire(NAME, lock_mode::exclusive, 0); }, &text);
            EXPECT_TRUE(reports.empty()) << "not of a short wait";
            failure_of([&] { registry.locks->acquire_all(of_all ? 400 : 0); }, &text);
            EXPECT_NE(text.find("one is held by " + own_name() + ", " + known), text.npos) << text;
            ASSERT_EQ(reports.size(), of_all ? 2U : 0U);
            EXPECT_EQ(reports.empty() ? "*" : reports[0].name, "*");
            std::vector<lock_use> users = registry.locks->users({NAME});
            ASSERT_EQ(users.size(), 1U);
            EXPECT_EQ(users[0].mode, mode);
            EXPECT_NE(users[0].holder.find(known), text.npos) << users[0].holder;
            EXPECT_NE(users[0].holder.find(SINCE), text.npos) << users[0].holder;
        }
    }
    keyview_lock_observe_waits(nullptr, nullptr);
}

// Whatever the hash of the lock's name is.
TEST_F(Locks, AWaitForAllNamesOneHolder) {
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    for (int i = 0; i < 64; ++i) {
        const std::string name = "a" + std::to_string(i);
        EXPECT_EQ(process_in(new_note(offsets_of(name, &words))), getpid());
        auto held = registry.locks->acquire(name, lock_mode::exclusive, 0);
        std::string text;
        failure_of([&] { registry.locks->acquire_all(0); }, &text);
        EXPECT_NE(text.find("one is held by " + own_name() + ", process"), text.npos) << text;
    }
}

// A note is for people: one that a killed process or an earlier release left names nobody.
TEST_F(Locks, AWrongNoteNamesNobodyAndDecidesNothing) {
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    const lock_offsets at = offsets_of(NAME, &words);
    auto held = registry.locks->acquire(NAME, lock_mode::exclusive, 0);
    const uint64_t sound = at.holder->load();
    constexpr uint64_t DAY = uint64_t{86400} << 32, NOBODY = 4194303;
    const struct {
        const char *label;
        uint64_t note;
        bool named;
    } ROWS[] = {
        {"the holder's", sound, true},
        {"none", 0, false},
        {"of a process that does not run", (sound & ~NOBODY) | NOBODY, false},
        {"of one that had the number before", sound - DAY, false},
        {"of another name", sound ^ uint64_t{1} << 22, false},
    };
    for (const auto &row : ROWS) {
        at.holder->store(row.note);
        std::string text;
        failure_of([&] { registry.locks->acquire(NAME, lock_mode::shared, 0); }, &text);
        bool named = text.find(own_name() + ", process") != text.npos;
        EXPECT_EQ(named, row.named) << row.label << ": " << text;
        EXPECT_EQ(text.find("another one holds it") == text.npos, row.named) << text;
    }
    at.holder->store(sound - DAY);
    held.reset();
    EXPECT_EQ(at.holder->load(), sound - DAY) << "a note of another one stays";
    at.holder->store(sound);
    EXPECT_TRUE(is_free());
    EXPECT_EQ(at.holder->load(), 0U) << "one's own goes with the lock";
}

// The descriptor belongs to no process until it is received.
static void send_descriptor(int to, int fd) {
    char byte = 0;
    iovec data = {&byte, 1};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(fd))] = {};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = space;
    message.msg_controllen = sizeof(space);
    cmsghdr *rights = CMSG_FIRSTHDR(&message);
    rights->cmsg_level = SOL_SOCKET;
    rights->cmsg_type = SCM_RIGHTS;
    rights->cmsg_len = CMSG_LEN(sizeof(fd));
    memcpy(CMSG_DATA(rights), &fd, sizeof(fd));
    ASSERT_EQ(sendmsg(to, &message, 0), 1);
    ::close(fd);
}

// As that of a process in another container.
TEST_F(Locks, AHolderThatNoProcessShowsIsListed) {
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        int fd = ::open((directory + "/locks").c_str(), O_RDWR | O_CLOEXEC);
        struct flock range = range_at(offsets_of(NAME, &words).byte, 1,
                                      mode == lock_mode::shared ? F_RDLCK : F_WRLCK);
        ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &range), 0);
        send_descriptor(ends[0], fd);
        std::vector<lock_use> users = registry.locks->users({"LKRT.none", NAME});
        ASSERT_EQ(users.size(), 1U);
        EXPECT_EQ(users[0].name, NAME);
        EXPECT_EQ(users[0].mode, mode);
        EXPECT_FALSE(users[0].waits);
        EXPECT_EQ(users[0].holder, "");
        for (const lock_offsets &noted :
             {offsets_at(WHOLE_BYTE, &words), offsets_of(NAME, &words)}) {
            noted.holder->store(new_note(noted));
            users = registry.locks->users({NAME});
            ASSERT_EQ(users.size(), 1U);
            EXPECT_EQ(users[0].holder.find(own_name()), 0U) << users[0].holder;
            noted.holder->store(0);
        }
        ::close(ends[0]);
        ::close(ends[1]);
    }
    EXPECT_TRUE(is_free());
}

TEST_F(Locks, DifferentNamesNeverTouch) {
    scratch_directory elsewhere;
    backend other = open_backend("lmdb:" + elsewhere.path, open_mode::create);
    auto same_name = other.locks->acquire(NAME, lock_mode::exclusive, 0);
    EXPECT_TRUE(is_free()) << "of another registry";
    EXPECT_TRUE(registry.locks->users({NAME}).empty());
    locker mine;
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(mine.exclusive((NAME + std::to_string(i)).c_str()), 0) << i;
    EXPECT_EQ(mine.exclusive(NAME), 0);
    EXPECT_EQ(mine.unlock((NAME + std::to_string(7)).c_str()), 0);
    EXPECT_FALSE(is_free());
    EXPECT_EQ(mine.exclusive((NAME + std::to_string(7)).c_str()), 0);
}

TEST_F(Locks, OddCallsAreRefused) {
    locker mine;
    EXPECT_NE(mine.unlock(NAME), 0) << "never taken";
    EXPECT_NE(std::string(keyview_host_last_error()).find(NAME), std::string::npos);
    EXPECT_NE(mine.unlock(nullptr), 0);
    const std::string longest(2047 + 16, 'x'), too_long = longest + "x";
    for (const char *name : {static_cast<const char *>(nullptr), "", too_long.c_str()})
        EXPECT_NE(mine.shared(name), 0);
    EXPECT_EQ(mine.shared(longest.c_str()), 0) << "a head and the longest path";
    EXPECT_EQ(mine.exclusive(NAME), 0);
    std::thread([&] { EXPECT_NE(mine.unlock(NAME), 0) << "another thread's"; }).join();
    EXPECT_EQ(mine.unlock(NAME), 0);
    EXPECT_NE(mine.unlock(NAME), 0) << "twice";
    std::thread([&] { EXPECT_EQ(mine.exclusive(NAME), 0); }).join();
    EXPECT_TRUE(is_free()) << "its thread has ended";

    EXPECT_EQ(mine.exclusive(NAME), 0);
    EXPECT_EQ(lksvsterm(nullptr, mine.lk), 0);
    EXPECT_TRUE(is_free()) << "released with the handle";
    {
        const setting odd{"KEYVIEW_LOCK_WAIT", "odd"};
        wait_for(-1);
        const uint16_t version[] = {2, 1};
        void *none = nullptr;
        EXPECT_NE(lksvsinit(nullptr, &none, version, nullptr, 272), 0) << "told at the beginning";
    }
    const uint16_t versions[][2] = {{2, 1}, {2, 2}, {3, 1}};
    void *made = nullptr;
    for (uint64_t size : {0U, 271U, 273U})
        EXPECT_NE(lksvsinit(nullptr, &made, versions[0], nullptr, size), 0);
    for (const uint16_t *version :
         {&versions[1][0], &versions[2][0], static_cast<const uint16_t *>(nullptr)})
        EXPECT_NE(lksvsinit(nullptr, &made, version, nullptr, 272), 0);
    EXPECT_NE(lksvsinit(nullptr, nullptr, versions[0], nullptr, 272), 0);
    EXPECT_EQ(made, nullptr);
    client keys;
    for (void *bad : {mine.lk, keys.reg, static_cast<void *>(nullptr)}) {
        EXPECT_NE(lksvlsshrlock(nullptr, bad, NAME), 0);
        EXPECT_NE(lksvsterm(nullptr, bad), 0);
    }
}

TEST_F(Locks, AKilledHolderSetsItsWaitersFree) {
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        child_process holder([&](const meeting &parent) {
            locker mine;
            return mine.take(mode, NAME) != 0 || !parent.tell() || !parent.wait();
        });
        ASSERT_TRUE(holder.here.wait());
        wait_for(0);
        EXPECT_FALSE(is_free());
        wait_for(DEADLINE_MS);
        std::thread waiter([] { EXPECT_TRUE(is_free()); });
        holder.kill_it();
        waiter.join();
    }
}

TEST_F(Locks, AForkedChildDoesNotKeepThem) {
    int lives_on[2];
    ASSERT_EQ(pipe(lives_on), 0);
    child_process holder([&](const meeting &parent) {
        locker mine;
        if (mine.exclusive(NAME) != 0) return true;
        if (fork() == 0) {  // lives until the test closes its pipe
            char byte;
            ::close(lives_on[1]);
            bool kept = mine.unlock(NAME) == 0;
            _exit(!parent.tell() || kept || read(lives_on[0], &byte, 1) != 0);
        }
        return !parent.wait();
    });
    ASSERT_TRUE(holder.here.wait());
    EXPECT_FALSE(is_free()) << "the child's end of it released nothing";
    holder.kill_it();
    EXPECT_TRUE(is_free());
    ::close(lives_on[1]);
    ::close(lives_on[0]);
}

// Holders that overlap, or that release and ask again at once: there is hardly ever a free moment.
TEST_F(Locks, AWriterIsNotStarved) {
    for (lock_mode others : {lock_mode::shared, lock_mode::exclusive}) {
        std::atomic<bool> stop{false};
        in_threads(7, [&](int thread) {
            for (int i = 0; thread == 0 && i < 5; ++i) {
                usleep(5000);
                EXPECT_NO_THROW(registry.locks->acquire(NAME, lock_mode::exclusive, 5000));
                if (others == lock_mode::exclusive) continue;
                EXPECT_NO_THROW(registry.locks->acquire_all(5000)) << "nor who wants all";
            }
            if (thread == 0) stop = true;
            while (!stop) {
                auto held = registry.locks->acquire(NAME, others, DEADLINE_MS);
                usleep(3000);
            }
        });
    }
}

// All locks in one step: no other one is granted then, whatever its name, but the store can be
// written; those who wait for all of them stop neither a stream of others nor a holder that needs
// one more.
TEST_F(Locks, AllAtOnceExcludeEachName) {
    const std::vector<std::string> names = {NAME, "LKRT.DATABASE.DATABASES.zoo"};
    std::shared_ptr<held_lock> all = registry.locks->acquire_all(0);
    for (const char *name : {NAME, "LKRT.DATABASE.DATABASES.other"})
        for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive})
            EXPECT_NE(locker().take(mode, name), 0) << name << int(mode);
    EXPECT_THROW(registry.locks->acquire_all(20), host_error);
    EXPECT_EQ(apply({put("DATABASE.DATABASES.sales")}).created, 3U);
    std::vector<lock_use> users = registry.locks->users(names);
    ASSERT_EQ(users.size(), 2U);
    for (const lock_use &one : users)
        EXPECT_TRUE(one.mode == lock_mode::exclusive && !one.waits) << one.name;
    all.reset();
    EXPECT_TRUE(is_free());
}

TEST_F(Locks, AllAreGrantedBesideThreadsThatTakeTwo) {
    std::atomic<bool> stop{false};
    in_threads(7, [&](int thread) {
        for (int i = 0; thread == 0 && i < 3; ++i)
            EXPECT_NO_THROW(registry.locks->acquire_all(10000));
        if (thread == 0) stop = true;
        while (!stop) {
            lock_mode mode = thread % 2 == 0 ? lock_mode::shared : lock_mode::exclusive;
            auto first = registry.locks->acquire("a" + std::to_string(thread), mode, 10000);
            auto second = registry.locks->acquire("b" + std::to_string(thread), mode, 10000);
        }
    });
}

TEST_F(Locks, AReaderMayAskAgainBehindAWaitingWriter) {
    locker mine;
    ASSERT_EQ(mine.shared(NAME), 0);
    std::thread writer(
        [&] { EXPECT_NO_THROW(registry.locks->acquire(NAME, lock_mode::exclusive, DEADLINE_MS)); });
    try {  // until the writer has the gate
        for (;;)
            registry.locks->acquire(NAME, lock_mode::shared, 0);
    } catch (const host_error &) {
        EXPECT_EQ(mine.shared(NAME), 0);
    }
    const std::vector<lock_use> users = registry.locks->users({NAME});
    EXPECT_TRUE(std::any_of(users.begin(), users.end(), [](const lock_use &one) {
        return one.waits && one.mode == lock_mode::exclusive &&
               one.holder.find(own_name() + ", process") == 0;
    }));
    EXPECT_EQ(mine.unlock(NAME), 0);
    EXPECT_FALSE(is_free());
    EXPECT_EQ(mine.unlock(NAME), 0);
    writer.join();
}

// A killed process may leave the words at the head of the lock file in any state.
TEST_F(Locks, AWrongHintNeverDecides) {
    auto write_words = [&](char byte) {
        std::fstream words(directory + "/locks", std::ios::in | std::ios::out);
        words << std::string(4096, byte);
    };
    auto hinted = [&] {
        std::ifstream words(directory + "/locks");
        std::string head(4096, ' ');
        words.read(head.data(), 4096);
        return head != std::string(4096, '\0');
    };
    wait_for(0);
    EXPECT_TRUE(is_free()) << "makes the file as long as it has to be";
    write_words('\x01');
    EXPECT_EQ(try_it(lock_mode::shared), 0) << "a reader goes on at once";
    write_words('\0');
    child_process holder([&](const meeting &parent) {
        locker mine;
        return mine.exclusive(NAME) != 0 || !parent.tell() || !parent.wait();
    });
    ASSERT_TRUE(holder.here.wait());
    EXPECT_TRUE(hinted());
    write_words('\0');
    EXPECT_NE(try_it(lock_mode::shared), 0) << "no hint, but the lock is held";
    EXPECT_NE(try_it(lock_mode::exclusive), 0);
    EXPECT_TRUE(hinted()) << "by the try";
    holder.kill_it();
    EXPECT_EQ(try_it(lock_mode::shared), 0);
    EXPECT_FALSE(hinted()) << "the next reader clears what the killed one left";
}

}  // namespace keyview::test
