// The leases of a session and their entries: while another thread is at work between any two steps, and
// beside a member that shows which leases were renewed and revoked.
#include <dlfcn.h>
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "../host/process.h"
#include "cluster/etcd.grpc.pb.h"
#include "cluster/faults.h"
#include "cluster/keepalives.h"
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

// ---- A member alone -----------------------------------------------------------------------------

// Grants all leases after a moment and contains no keys.
class lease_keeper : wire::KV::Service, wire::Lease::Service {
  public:
    lease_keeper() {
        int port = 0;
        grpc::ServerBuilder builder;
        builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
        builder.RegisterService(static_cast<wire::KV::Service *>(this));
        builder.RegisterService(static_cast<wire::Lease::Service *>(this));
        server_ = builder.BuildAndStart();
        address = "127.0.0.1:" + std::to_string(port);
    }

    cluster_settings settings() const { return settings_of("etcd://" + address + "/test"); }

    std::vector<int64_t> renewed() { return copy_of(renewed_); }
    std::vector<int64_t> revoked() { return copy_of(revoked_); }

    std::string address;
    std::atomic<int64_t> ttl{3};       // in the answers to keepalives; below 0 there are none
    std::atomic<bool> refuses{false};  // transactions
    std::atomic<int> open_keepalives{0};

  private:
    std::vector<int64_t> copy_of(const std::vector<int64_t> &ids) {
        std::lock_guard guard(mutex_);
        return ids;
    }
    void add(std::vector<int64_t> *to, int64_t id) {
        std::lock_guard guard(mutex_);
        to->push_back(id);
    }

    grpc::Status Txn(grpc::ServerContext *, const wire::TxnRequest *asked,
                     wire::TxnResponse *out) override {
        if (refuses) return {grpc::StatusCode::PERMISSION_DENIED, "permission denied"};
        for (int n = 0; n < asked->success_size(); ++n)
            out->add_responses();
        out->set_succeeded(true);
        return grpc::Status::OK;
    }
    grpc::Status LeaseGrant(grpc::ServerContext *, const wire::LeaseGrantRequest *,
                            wire::LeaseGrantResponse *) override {
        usleep(50000);
        return grpc::Status::OK;
    }
    grpc::Status LeaseRevoke(grpc::ServerContext *, const wire::LeaseRevokeRequest *asked,
                             wire::LeaseRevokeResponse *) override {
        add(&revoked_, asked->id());
        return grpc::Status::OK;
    }
    // As etcd does, it leaves the end of the stream to the client.
    grpc::Status LeaseKeepAlive(
        grpc::ServerContext *from,
        grpc::ServerReaderWriter<wire::LeaseKeepAliveResponse, wire::LeaseKeepAliveRequest> *here)
        override {
        ++open_keepalives;
        wire::LeaseKeepAliveRequest asked;
        here->Read(&asked);
        add(&renewed_, asked.id());
        wire::LeaseKeepAliveResponse answer;
        answer.set_ttl(ttl);
        usleep(50000);
        if (answer.ttl() >= 0) here->Write(answer);
        while (!from->IsCancelled())
            usleep(1000);
        --open_keepalives;
        return grpc::Status::CANCELLED;
    }

    std::mutex mutex_;
    std::vector<int64_t> renewed_, revoked_;
    std::unique_ptr<grpc::Server> server_;
};

using ids = std::vector<int64_t>;

// Calls send the keepalives that are due, one at a time, and none for a lease that was given up: an
// entry under it would live as long as the program. The answer may be that the lease is lost.
TEST(Session, CallsRenewTheLeasesInUseAsTheyBecomeDue) {
    const setting ttl("KEYVIEW_LEASE_TTL", "3");
    lease_keeper member;
    session mine(member.settings()), other(member.settings());
    const auto held = mine.add_entry(mine.calls().answer_end());
    other.release_unknown(other.add_entry(other.calls().answer_end()));
    const steady::time_point granted = held->requested;
    auto call_until = [&](int ms) {
        for (; mine.lives(*held) && steady::now() < granted + std::chrono::milliseconds(ms);
             usleep(5000)) {
            (void)mine.txn({});
            other.keep_alive();
        }
    };
    call_until(800);
    EXPECT_EQ(member.renewed(), ids());
    call_until(1800);
    EXPECT_EQ(member.renewed(), ids{held->id});
    member.ttl = 0;
    call_until(3700);  // it would live for 4 seconds
    EXPECT_FALSE(mine.lives(*held));
    EXPECT_EQ(member.renewed(), ids(2, held->id));
}

// Otherwise what is carried out late under a lease would stay in a queue.
TEST(Session, ALeaseThatWasGivenUpIsRevoked) {
    lease_keeper member;
    const struct {
        const char *label;
        void (*give_up)(session *, lease_keeper *, const std::shared_ptr<session::lease> &);
    } ROWS[] = {{"an entry that may not exist",
                 [](auto *mine, auto *, auto &its) { mine->release_unknown(its); }},
                {"a release that fails", [](auto *mine, auto *at, auto &its) {
                     at->refuses = true;
                     mine->release("x", its);
                     at->refuses = false;
                 }}};
    ids revoked;
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.label);
        auto mine = std::make_unique<session>(member.settings());
        const steady::time_point end = mine->calls().answer_end();
        std::shared_ptr<session::lease> lease = mine->add_entry(end);
        const int64_t id = lease->id;
        row.give_up(mine.get(), &member, lease);
        EXPECT_EQ(member.revoked(), revoked) << "the next one does that";
        const std::weak_ptr<session::lease> old = std::exchange(lease, mine->add_entry(end));
        revoked.push_back(id);
        EXPECT_EQ(member.revoked(), revoked);
        EXPECT_TRUE(old.expired()) << "the session keeps it";
        revoked.push_back(lease->id);
        mine.reset();
        EXPECT_EQ(member.revoked(), revoked) << "at the end of the session";
    }
}

// Closed, it is revoked with its last entry, and not before: whoever else waited for its grant counts once.
TEST(Session, ALeaseIsRevokedWithTheLastOfItsEntries) {
    constexpr int ENTRIES = 5;
    lease_keeper member;
    ids revoked;
    for (const auto &end_it : {&session::close, &session::note_lost}) {
        session mine(member.settings());
        std::vector<std::shared_ptr<session::lease>> entries(ENTRIES);
        in_threads(ENTRIES, [&](int n) {
            entries[static_cast<size_t>(n)] = mine.add_entry(mine.calls().answer_end());
        });
        (mine.*end_it)(entries[0].get());
        for (const auto &its : entries) {
            ASSERT_EQ(its, entries[0]);
            EXPECT_EQ(member.revoked(), revoked);
            mine.release("x", its);
        }
        revoked.push_back(entries[0]->id);
        EXPECT_EQ(member.revoked(), revoked);
    }
}

// ---- Keepalives ---------------------------------------------------------------------------------

static std::unique_ptr<grpc::ClientContext> new_context() {
    return std::make_unique<grpc::ClientContext>();
}

static std::shared_ptr<grpc::Channel> channel_to(const lease_keeper &member) {
    return grpc::CreateChannel(member.address, grpc::InsecureChannelCredentials());
}

TEST(Session, KeepalivesEndWithTheirAnswerOrAtOnce) {
    lease_keeper member;
    const auto channel = channel_to(member);
    const struct {
        const char *label;
        int64_t ttl;
        useconds_t callback_us;
    } ROWS[] = {{"answered", 3, 0}, {"reporting its answer", 3, 100000}, {"unanswered", -1, 0}};
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.label);
        std::atomic<int64_t> told{-2};
        steady::time_point begun;
        {
            keepalives all;
            member.ttl = row.ttl;
            all.start(channel, new_context(), 1, [&](int64_t seconds) {
                told = seconds;
                usleep(row.callback_us);
            });
            auto is_so = [&] {
                if (row.ttl < 0) return member.open_keepalives == 1;
                return told == row.ttl && (row.callback_us > 0 || member.open_keepalives == 0);
            };
            for (int n = 0; n < 1000 && !is_so(); ++n)
                usleep(1000);
            EXPECT_TRUE(is_so());
            begun = steady::now();
        }
        EXPECT_LT(steady::now() - begun, std::chrono::milliseconds(1500));
        EXPECT_EQ(told, row.ttl);
    }
}

// Even if the callback takes longer than they are waited for.
TEST(Session, WhatACallbackOfAKeepaliveUsesIsThere) {
    lease_keeper member;
    const auto channel = channel_to(member);
    std::atomic<bool> begun{false}, ended{false};
    {
        keepalives all;
        all.start(channel, new_context(), 1, [&](int64_t) {
            begun = true;
            usleep(2500000);
            ended = true;
        });
        while (!begun)
            usleep(1000);
    }
    EXPECT_TRUE(ended);
}

}  // namespace keyview::test
