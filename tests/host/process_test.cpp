// The kit at the ends of a process: while it exits, and while another thread forks.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "process.h"
#include "registry.h"

using namespace std::chrono_literals;

// Runs before each read of a file at an offset, which the kit uses while it opens a registry.
static std::atomic<void (*)()> before_pread{nullptr};

extern "C" ssize_t pread(int fd, void *to, size_t size, off_t offset) {
    static const auto real = reinterpret_cast<decltype(&pread)>(dlsym(RTLD_NEXT, "pread"));
    if (void (*hook)() = before_pread.load()) hook();
    return real(fd, to, size, offset);
}

namespace keyview::test {

static constexpr const char *PROCESS_LOCK = "LKRT.DATABASE.DATABASES.sales";
static constexpr const char *ROLE_KEY = "DATABASE.DATABASES.sales.ROLE";

class Process : public RegistryTest {};

// Reads a key under a lock, and overwrites freed memory of all sizes meanwhile.
static const client *late_client;
static const locker *late_locker;

static void fetch_and_exit() {
    static std::vector<std::string> overwritten;  // reachable when the process ends
    int32_t rc = late_locker->exclusive(PROCESS_LOCK);
    for (size_t size = 16; size <= 4096; size += 16) {
        for (int i = 0; i < 8; ++i)
            overwritten.emplace_back(size, '\xFF');
    }
    bool same = late_client->read(ROLE_KEY) == "PRIMARY";
    if (rc == 0) rc = late_locker->unlock(PROCESS_LOCK);
    _exit(rc == 0 && same ? 0 : 1);
}

TEST_F(Process, AnAtexitHandlerCanFetch) {
    apply({put(ROLE_KEY, "PRIMARY")});
    child_process exiting([](const meeting &) {
        late_client = new client;
        late_locker = new locker;
        (void)late_locker->exclusive(PROCESS_LOCK);  // so that this thread has a table of locks
        (void)late_locker->unlock(PROCESS_LOCK);
        (void)atexit(fetch_and_exit);
        exit(2);
        return 3;
    });
    EXPECT_EQ(exiting.status(), 0);
}

static std::atomic<bool> opening, forked;

TEST_F(Process, ForksWhileARegistryIsOpened) {
    close();
    before_pread = [] {
        opening = true;
        for (int waited = 0; !forked && waited < 2000; ++waited)
            std::this_thread::sleep_for(1ms);
    };
    std::thread slow([this] { open(); });
    while (!opening)
        std::this_thread::sleep_for(1ms);
    auto start = std::chrono::steady_clock::now();
    // It is killed in the end: what other threads held at the fork is lost to it, not leaked.
    child_process child([](const meeting &there) {
        (void)there.tell();
        return pause();
    });
    auto took = std::chrono::steady_clock::now() - start;
    forked = true;
    before_pread = nullptr;
    slow.join();
    EXPECT_TRUE(child.here.wait());
    EXPECT_LT(took, 1s) << "the fork waited for the open";
    EXPECT_EQ(apply({put(ROLE_KEY)}).created, 4u);
}

}  // namespace keyview::test
