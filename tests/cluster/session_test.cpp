// Entries under the leases of a session, while another thread is at work between any two steps.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

#include "cluster/faults.h"
#include "cluster/session.h"
#include "shared.h"

// Runs at the end of this thread's critical section of this number, and once.
static thread_local std::function<void()> *at_unlock = nullptr;
static thread_local int sections_left = 0;

// In place of libc's, for the sources of the cluster that are linked into this program.
extern "C" int pthread_mutex_unlock(pthread_mutex_t *mutex) {
    static const auto libc_unlock =
        reinterpret_cast<int (*)(pthread_mutex_t *)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    int rc = libc_unlock(mutex);
    if (at_unlock != nullptr && --sections_left == 0) (*std::exchange(at_unlock, nullptr))();
    return rc;
}

namespace keyview::test {

// A failed release closes the open lease, and a new entry drops those that are closed and unused: the
// lease of an entry that is just being added stays and is renewed.
TEST(Session, AnEntryIsNeverLostToAnotherThread) {
    setting ttl("KEYVIEW_LEASE_TTL", "3");
    const cluster_settings settings = settings_of(shared_members().url(fresh_prefix()));
    std::vector<std::unique_ptr<session>> sessions;
    std::vector<std::shared_ptr<session::lease>> leases;
    for (bool interrupted = true; interrupted;) {
        session &mine = *sessions.emplace_back(std::make_unique<session>(settings));
        steady::time_point end = mine.calls().answer_end();
        std::shared_ptr<session::lease> open = mine.add_entry(end);
        mine.release(mine.unique_name(), open);
        interrupted = false;
        std::function<void()> other_thread = [&] {
            interrupted = true;
            mine.close(open.get());
            leases.push_back(mine.add_entry(end));
        };
        sections_left = static_cast<int>(sessions.size());
        at_unlock = &other_thread;
        leases.push_back(mine.add_entry(end));
        at_unlock = nullptr;
    }
    EXPECT_GT(sessions.size(), 1u);
    for (int waited_ms = 0; waited_ms < 3500; waited_ms += 100, usleep(100000)) {
        for (const std::unique_ptr<session> &one : sessions)
            one->keep_alive();
    }
    for (size_t i = 0; i < leases.size(); ++i)
        EXPECT_TRUE(sessions[0]->lives(*leases[i])) << i;
}

// gRPC was seen to lose a renewal: no callback came, for no deadline and no cancellation.
TEST(Session, ALostRenewalIsRepeatedAndHoldsNothingUp) {
    setting ttl("KEYVIEW_LEASE_TTL", "3");
    auto mine = std::make_unique<session>(settings_of(shared_members().url(fresh_prefix())));
    const auto held = mine->add_entry(mine->calls().answer_end());
    usleep(1100000);
    faults.lose_keep_alives = true;
    mine->keep_alive();
    faults.lose_keep_alives = false;
    for (int waited_ms = 0; waited_ms < 3500; waited_ms += 100, usleep(100000))
        mine->keep_alive();
    EXPECT_TRUE(mine->lives(*held));
    const steady::time_point begun = steady::now();
    mine.reset();
    EXPECT_LT(steady::now() - begun, std::chrono::seconds(10));
}

// A request that is carried out late creates no entry then.
TEST(Session, AClosedLeaseEndsWithItsLastEntry) {
    session mine(settings_of(shared_members().url(fresh_prefix())));
    const steady::time_point end = mine.calls().answer_end();
    const auto first = mine.add_entry(end), second = mine.add_entry(end);
    ASSERT_EQ(first, second) << "under one lease";
    mine.close(first.get());
    mine.release(mine.unique_name(), first);
    EXPECT_TRUE(mine.lives(*second));
    mine.release(mine.unique_name(), second);
    EXPECT_FALSE(mine.lives(*second));
}

}  // namespace keyview::test
