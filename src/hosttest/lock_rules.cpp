// Locks. A second thread, with a handle of its own, finds out what a lock excludes.
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "hosttest/locks.h"
#include "hosttest/rules.h"
#include "model/roots.h"

namespace keyview::hosttest {

using namespace std::chrono_literals;

static constexpr size_t STATUS_WORDS = 28;
static constexpr uint64_t MARK = 0x5a5a5a5a5a5a5a5a;

// The lock of a database that need not exist.
static std::string test_lock(const char *name = "keyview-hosttest") {
    return std::string(model::LOCK_HEAD) + model::DB_ROOT + "." + name;
}

lock_client::lock_client() {
    for (size_t n = 0; n < std::size(status_); ++n)
        status_[n] = n < STATUS_WORDS ? 0 : MARK;
    const uint16_t version[2] = {2, 1};
    const uint64_t block[8] = {reinterpret_cast<uintptr_t>(host.pgcinit(0)),
                               reinterpret_cast<uintptr_t>(host.tmem_allocm),
                               reinterpret_cast<uintptr_t>(host.tmem_freem),
                               reinterpret_cast<uintptr_t>(host.thrsini()),
                               0,
                               208,
                               0,
                               0};
    require(checked(host.lksvsinit(status_, &lk_, version, block, 272)) == 0, "lksvsinit fails");
}

int32_t lock_client::take(const std::string &name, bool exclusive) {
    return checked(exclusive ? host.lksvlsmutexlock(status_, lk_, name.c_str())
                             : host.lksvlsshrlock(status_, lk_, name.c_str()));
}

int32_t lock_client::release(const std::string &name) {
    return checked(host.lksvlsunlock(status_, lk_, name.c_str()));
}

int32_t lock_client::end() {
    return checked(host.lksvsterm(status_, lk_));
}

int32_t lock_client::checked(int32_t rc) const {
    for (size_t n = STATUS_WORDS; n < std::size(status_); ++n)
        require(status_[n] == MARK, "more than 224 bytes of the status block are written");
    return rc;
}

// ---- What excludes what -------------------------------------------------------------------------

// A thread that takes a lock and releases it.
struct contender {
    contender(const std::string &name, bool exclusive)
        : thread([=] {
              lock_client client;
              require(client.take(name, exclusive) == 0, "a lock that was waited for is refused");
              granted = true;
              require(client.release(name) == 0, "lksvlsunlock fails for a held lock");
          }) {}
    ~contender() { thread.join(); }
    contender(const contender &) = delete;
    contender &operator=(const contender &) = delete;

    bool granted_within(std::chrono::milliseconds limit) const {
        auto end = std::chrono::steady_clock::now() + limit;
        while (!granted && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(2ms);
        return granted;
    }

    std::atomic<bool> granted{false};
    std::thread thread;
};

static const char *mode_word(bool exclusive) {
    return exclusive ? "exclusive" : "shared";
}

// A lock that is held in one mode and requested in the other: it must wait, and come with the release.
static void require_exclusion(bool held, bool requested) {
    lock_client client;
    require(client.take(test_lock(), held) == 0, "a free lock is refused");
    contender other(test_lock(), requested);
    if (other.granted_within(150ms)) {
        broken(std::string("the ") + mode_word(requested) + " lock is granted beside the " +
               mode_word(held) + " one");
    }
    require(client.release(test_lock()) == 0, "lksvlsunlock fails for a held lock");
    require(other.granted_within(3s), std::string("3 s after the release of the ") +
                                          mode_word(held) + " lock, the waiter still waits");
}

static void locks_exclude() {
    require_exclusion(true, true);
    require_exclusion(true, false);
    require_exclusion(false, true);
}

// A lock that is requested while another one is held, and must not wait for it.
static void require_no_wait(bool exclusive, const std::string &requested, const char *fault) {
    lock_client client;
    require(client.take(test_lock(), exclusive) == 0, "a free lock is refused");
    contender other(requested, exclusive);
    require(other.granted_within(3s), fault);
    (void)client.release(test_lock());
}

static void readers_share() {
    require_no_wait(false, test_lock(), "a second shared lock waits for the first one");
}

static void locks_are_apart() {
    require_no_wait(true, test_lock("keyview-hosttest-2"), "the lock of another name waits");
}

static void locks_are_released() {
    lock_client client;
    for (bool exclusive : {true, false}) {
        require(client.take(test_lock(), exclusive) == 0, "a free lock is refused");
        require(client.release(test_lock()) == 0, "lksvlsunlock fails for a held lock");
        contender other(test_lock(), true);
        require(other.granted_within(3s),
                std::string("a ") + mode_word(exclusive) + " lock that was released is not free");
    }
}

// A count that only the lock protects.
static void no_change_is_lost() {
    static constexpr int THREADS = 4, ROUNDS = 20;
    static volatile int count = 0;
    std::thread threads[THREADS];
    for (std::thread &one : threads) {
        one = std::thread([] {
            lock_client client;
            for (int round = 0; round < ROUNDS; ++round) {
                require(client.take(test_lock(), true) == 0, "a lock is refused");
                int seen = count;
                std::this_thread::yield();
                count = seen + 1;
                require(client.release(test_lock()) == 0, "lksvlsunlock fails for a held lock");
            }
        });
    }
    for (std::thread &one : threads)
        one.join();
    require(count == THREADS * ROUNDS, std::to_string(THREADS * ROUNDS - count) + " of " +
                                           std::to_string(THREADS * ROUNDS) + " changes are lost");
}

static void service_starts_and_ends() {
    require(host.thrsini() != nullptr, "thrsini returns null");
    for (int n = 0; n < 20; ++n) {
        lock_client client;
        require(client.end() == 0, "lksvsterm fails");
    }
}

std::vector<rule> lock_rules() {
    return {
        {"lock-service", "thrsini returns a context, and lock services start and end",
         service_starts_and_ends},
        {"lock-excludes", "an exclusive lock excludes all others until its release", locks_exclude},
        {"lock-shares", "shared locks of one name are held at once", readers_share},
        {"lock-names", "locks of different names do not wait for each other", locks_are_apart},
        {"lock-release", "lksvlsunlock releases a lock of either mode", locks_are_released},
        {"lock-protects", "threads that change one thing under an exclusive lock lose no change",
         no_change_is_lost},
    };
}

}  // namespace keyview::hosttest
