// A member between the module and a real one that loses, fails or changes answers.
// of each work.
#include <grpcpp/grpcpp.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

#include "cluster/etcd.grpc.pb.h"
#include "cluster/etcd_locks.h"
#include "cluster/request.h"
#include "host/registry/history.h"
#include "host/registry/snapshot.h"
#include "shared.h"

namespace keyview::test {

using grpc::StatusCode;

// What is done to one answer.
struct bad_answer {
    const char *label;
    bool carried_out;     // the call
    bool passes;          // another try has the answer
    grpc::Status status;  // in place of the answer; OK: it is changed
    void (*change)(wire::TxnResponse *) = nullptr;
};

static const grpc::Status REFUSED_AS_FULL(StatusCode::RESOURCE_EXHAUSTED,
                                          "database space exceeded");

// Forwards calls, on two ports as two members do.
class stand_in : wire::KV::Service, wire::Lease::Service, wire::Watch::Service {
  public:
    explicit stand_in(const std::string &member)
        : channel_(grpc::CreateChannel(member, grpc::InsecureChannelCredentials())) {
        int ports[2];
        grpc::ServerBuilder builder;
        for (int &port : ports)
            builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
        builder.RegisterService(static_cast<wire::KV::Service *>(this));
        builder.RegisterService(static_cast<wire::Lease::Service *>(this));
        builder.RegisterService(static_cast<wire::Watch::Service *>(this));
        server_ = builder.BuildAndStart();
        url = "etcd://127.0.0.1:" + std::to_string(ports[0]) +
              ",127.0.0.1:" + std::to_string(ports[1]);
    }

    std::string url;
    bad_answer bad;
    std::string lost;              // what a request contains from whose answer on there is none
    std::function<void()> behind;  // the first such request
    std::atomic<bool> silent{false};
    std::atomic<bool> full{false};  // it refuses leases and puts
    std::atomic<int> left{0};       // calls until the bad answer
    std::function<void()> at_watch;

  private:
    template <typename stub, typename question, typename answer>
    grpc::Status forward(stub *to,
                         grpc::Status (stub::*rpc)(grpc::ClientContext *, const question &,
                                                   answer *),
                         const question *asked, answer *out) {
        const bool now = --left == 0;
        if (now && !bad.carried_out) return bad.status;
        grpc::ClientContext context;
        grpc::Status status = (to->*rpc)(&context, *asked, out);
        if (!now) return status;
        if constexpr (std::is_same_v<answer, wire::TxnResponse>)
            if (bad.change != nullptr) bad.change(out);
        return bad.status;
    }

    grpc::Status Txn(grpc::ServerContext *, const wire::TxnRequest *asked,
                     wire::TxnResponse *out) override {
        for (const wire::RequestOp &one : asked->success())
            if (full && one.has_request_put()) return REFUSED_AS_FULL;
        const grpc::Status status = forward(&keys_, &wire::KV::Stub::Txn, asked, out);
        if (!lost.empty() && asked->SerializeAsString().find(lost) != std::string::npos) {
            lost.clear();
            silent = true;
            behind();
        }
        return silent ? grpc::Status(StatusCode::UNAVAILABLE, "lost") : status;
    }
    grpc::Status LeaseGrant(grpc::ServerContext *, const wire::LeaseGrantRequest *asked,
                            wire::LeaseGrantResponse *out) override {
        if (full) return REFUSED_AS_FULL;
        return forward(&leases_, &wire::Lease::Stub::LeaseGrant, asked, out);
    }
    grpc::Status LeaseRevoke(grpc::ServerContext *, const wire::LeaseRevokeRequest *asked,
                             wire::LeaseRevokeResponse *out) override {
        return forward(&leases_, &wire::Lease::Stub::LeaseRevoke, asked, out);
    }
    grpc::Status Watch(
        grpc::ServerContext *from,
        grpc::ServerReaderWriter<wire::WatchResponse, wire::WatchRequest> *here) override {
        wire::WatchRequest asked;
        wire::WatchResponse one;
        auto context = grpc::ClientContext::FromServerContext(*from);
        auto there = watches_.Watch(context.get());
        if (here->Read(&asked)) there->Write(asked);
        if (at_watch) std::exchange(at_watch, nullptr)();
        if (--left == 0) return bad.status;
        while (there->Read(&one) && here->Write(one))
            continue;
        context->TryCancel();
        return there->Finish();
    }

    std::shared_ptr<grpc::Channel> channel_;
    wire::KV::Stub keys_{channel_};
    wire::Lease::Stub leases_{channel_};
    wire::Watch::Stub watches_{channel_};
    std::unique_ptr<grpc::Server> server_;
};

// What was carried out without an answer, and replaced by another program, is
// not carried out again.
TEST(Answers, AChangeIsCarriedOutOnce) {
    etcd_members &three = shared_members();
    const std::string prefix = fresh_prefix();
    backend other = open_cluster(three.url(prefix));
    std::vector<change> many;  // more than a transaction holds
    many.reserve(150);
    for (int n = 0; n < 150; ++n)
        many.push_back(put("a.c" + std::to_string(n), "x"));
    const struct {
        const char *label;
        std::string mark;  // of the request that changes the tree
        bool set;
        std::vector<change> before;
    } ROWS[] = {{"a set", "stolen", true, {}},
                {"a change set", "stolen", false, {}},
                {"one in pieces", "process " + std::to_string(getpid()), false, many}};
    for (const auto &row : ROWS) {
        other.keys->apply({put("a.b", "before"), removal("a.c0")});
        const auto is_made = [&] {
            return row.before.empty() ? value_at(other, "a.b") == "stolen"
                                      : other.keys->finish_apply(finish::resume);
        };
        {
            stand_in member(three.address(0));
            member.lost = row.mark;
            member.behind = [&] {
                while (!is_made())
                    continue;
                other.keys->apply({put("a.b", "after")});
            };
            backend mine = open_cluster(member.url + "," + three.address(1) + prefix);
            std::vector<change> changes = row.before;
            changes.push_back(put("a.b", "stolen"));
            try {
                if (row.set)
                    mine.keys->set("a.b", "stolen", nullptr);
                else
                    mine.keys->apply(changes);
            } catch (const host_error &error) {
                EXPECT_EQ(error.kind, failure::changed) << row.label << ": " << error.what();
            }
            EXPECT_TRUE(member.lost.empty()) << row.label;
        }
        EXPECT_EQ(value_at(other, "a.b"), "after") << row.label;
    }
}

// ---- Locks --------------------------------------------------------------------------------------

class LockAnswers : public testing::Test {
  protected:
    static constexpr model::lock_cover PART{"a", reach::all_below};

    std::shared_ptr<held_lock> take(lock_mode mode, uint32_t wait_ms) const {
        return mine.locks->acquire("LKRT.a", mode, wait_ms, PART);
    }
    static queue_entry &entry_of(held_lock *lock) {
        return *dynamic_cast<etcd_lock &>(*lock).entry();
    }
    // Otherwise the first request of a lock is that for its lease.
    void bring_lease() const { (void)mine.locks->acquire("LKRT.x", lock_mode::shared, 0); }

    void answer_next(const grpc::Status &with, bool carried_out) {
        member.bad = {"", carried_out, false, with};
        member.left = 1;
    }

    const std::string prefix = fresh_prefix();
    stand_in member{shared_members().address(0)};
    backend sound = open_cluster(shared_members().url(prefix));
    const setting wait{"KEYVIEW_ANSWER_WAIT", "1"};
    backend mine = open_cluster(member.url + prefix);
};

// The entry is made once, as a set under the lock takes a later change of it for its own, and under a lease
// that ends with it, as the first request may be carried out once the lock is released.
TEST_F(LockAnswers, ALockIsAskedForTwiceAndEnteredOnce) {
    mine.keys->apply({put("a.b", "v")});
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        for (bool waits : {false, true}) {
            bring_lease();
            auto theirs = waits ? sound.locks->acquire("LKRT.a", lock_mode::exclusive, 0) : nullptr;
            if (waits) member.at_watch = [&] { theirs.reset(); };
            answer_next({StatusCode::UNAVAILABLE, "lost"}, true);
            auto held = take(mode, 10000);
            EXPECT_EQ(entry_of(held.get()).changed(), entry_of(held.get()).created());
            EXPECT_TRUE(entry_of(held.get()).lease()->closed);
        }
    }
}

// What got no answer is not waited for again; what it may have made goes with its lease.
TEST_F(LockAnswers, ALockWithoutAnAnswerIsGivenUpAtOnce) {
    mine.keys->apply({put("a.b", "v")});
    bring_lease();
    auto attempt = [&] { take(lock_mode::exclusive, 10000); };
    member.silent = true;
    expect_failure(attempt, failure::registry, "does not answer", 1);
    member.silent = false;
    (void)take(lock_mode::exclusive, 0);
    auto theirs = sound.locks->acquire("LKRT.a", lock_mode::exclusive, 0);
    member.at_watch = [&] {
        member.silent = true;
        theirs.reset();
    };
    expect_failure(attempt, failure::registry, "does not answer", 1);
}

// It may be carried out late, over the next one.
TEST_F(LockAnswers, NoSetFollowsOneWithoutAnAnswer) {
    mine.keys->apply({put("a.b", "v")});
    auto held = take(lock_mode::exclusive, 0);
    std::string before = "v";  // so that no read comes before the set
    auto set = [&] { mine.keys->set("a.b", "new", held.get(), &before); };
    member.silent = true;
    expect_failure(set, failure::registry, "does not answer", 1);
    member.silent = false;
    expect_failure(set, failure::lock, "take the lock anew", 0);
    held.reset();
    held = take(lock_mode::exclusive, 0);
    EXPECT_NO_THROW(set());
}

// A reader of a cluster that takes no further key is granted its part as of a moment without a writer.
TEST_F(LockAnswers, AFullClusterIsReadBesideItsWriters) {
    sound.keys->apply({put("a.b", "v"), put("a.2.3.4.5.6.7.8.9.10", "deep")});
    auto read = [&](uint32_t wait_ms) {
        auto held = take(lock_mode::shared, wait_ms);
        std::string all;
        for (const char *path : {"a.b", "a.2.3.4.5.6.7.8.9.10"}) {
            std::string value;
            EXPECT_TRUE(held->as_of_grant()->read(path, &value)) << "as often as it is asked for";
            all += value;
        }
        EXPECT_FALSE(held->still_held());
        EXPECT_EQ(failure_of([&] { mine.keys->set("a.b", "new", held.get()); }), failure::lock);
        return all;
    };
    bring_lease();
    member.full = true;
    for (const char *name : {"LKRT.a", "LKRT.b"}) {
        auto theirs = sound.locks->acquire(
            name, name[5] == 'a' ? lock_mode::shared : lock_mode::exclusive, 0);
        EXPECT_EQ(read(0), "vdeep") << name;
    }
    for (bool all : {false, true}) {
        auto theirs = all ? sound.locks->acquire_all(0)
                          : sound.locks->acquire("LKRT.a", lock_mode::exclusive, 0);
        expect_failure([&] { read(0); }, failure::lock, "held by", 0);
        member.at_watch = [&] { theirs.reset(); };
        EXPECT_EQ(read(10000), "vdeep");
        EXPECT_EQ(theirs, nullptr);
    }
    for (const auto &attempt : std::vector<std::function<void()>>{
             [&] { take(lock_mode::exclusive, 0); },
             [&] { mine.locks->acquire("LKRT.a", lock_mode::shared, 0); }}) {
        expect_failure(attempt, failure::registry, "database space exceeded", 0);
    }
    member.full = false;
    bring_lease();
    answer_next({StatusCode::PERMISSION_DENIED, "permission denied"}, false);
    expect_failure([&] { take(lock_mode::shared, 0); }, failure::denied, "", 0);
    member.full = true;

    // Within a change set in pieces it waits as other readers do.
    std::vector<change> many = {put("a.b", "new")};
    for (int n = 0; n < 150; ++n)
        many.push_back(put("a.c" + std::to_string(n)));
    stop_after(1, [&] { sound.keys->apply(many); });
    expect_failure([&] { read(0); }, failure::content, "half-way", 1);
    std::thread writer([&] {
        usleep(200000);
        sound.keys->finish_apply(finish::resume);
    });
    EXPECT_EQ(read(0), "newdeep");
    writer.join();
}

// ---- Works --------------------------------------------------------------------------------------

class StandIn : public testing::Test {
  protected:
    static constexpr uint32_t WAIT_MS = 5000;
    static constexpr model::lock_cover PART{"a", reach::all_below};

    // Returns what it read, which no bad answer that passes may change.
    struct work {
        const char *label;
        std::function<std::string(const backend &)> run;
        bool half_applied = false;  // an earlier change set
    };

    static std::vector<change> many() {
        std::vector<change> all = {removal("a.c")};
        for (int n = 0; n < 150; ++n)  // more than a transaction holds
            all.push_back(put("a.k" + std::to_string(n), "new"));
        return all;
    }

    static std::string tree_of(const backend &from) {
        snapshot all("a", reach::all_below);
        std::string out;
        if (!from.keys->now()->copy("a", reach::all_below, &all)) return "none";
        for (uint32_t n = 0; n < all.size(); ++n)
            out += std::string(all.path(n)) + "=" + std::string(all.value(n)) + "\n";
        return out;
    }

    std::string changes_of(const backend &from) const {
        std::string out;
        from.keys->history(begun, [&](const history_entry &one) {
            out += " " + std::to_string(one.changes.size());
            return true;
        });
        return out;
    }

    static std::string counts_of(const change_counts &all) {
        return std::to_string(all.created) + "+" + std::to_string(all.replaced) + "-" +
               std::to_string(all.removed);
    }

    // What a sound member has: the tree, and the sizes of the changes since the
    // begin of the work.
    std::string state() const { return tree_of(sound) + changes_of(sound); }

    void begin(bool half_applied) {
        sound.keys->finish_apply(finish::undo);
        sound.keys->apply({removal("a"), put("a.b", "0")});
        begun = sound.keys->now()->current().tree;
        sound.keys->apply({put("a.b", "old"), put("a.c.d", "deep")});
        before = state();
        if (half_applied) stop_after(1, [&] { sound.keys->apply(many()); });
    }

    // "" after a failure, which has a text.
    std::string run(const work &one, bool fails) {
        std::string text;
        try {
            return one.run(open_cluster(member.url + prefix, open_mode::existing)) + ".";
        } catch (const host_error &error) {
            text = error.what();
        }
        member.at_watch = nullptr;
        EXPECT_TRUE(fails && !text.empty()) << text;
        return "";
    }

    const setting limit{"KEYVIEW_HISTORY", "2560"};  // ten entries
    scratch_directory memory{"/dev/shm"};            // some thousand writes
    etcd_members real{1, {"--data-dir=" + memory.path + "/m"}};
    stand_in member{real.address(0)};
    const std::string prefix = "/test";
    backend sound = open_cluster(real.url(prefix));
    uint64_t begun = 0;
    std::string before;

    const std::vector<work> WORKS = {
        {"open", [&](const backend &) { return open_cluster(member.url + fresh_prefix()), ""; }},
        {"read", [](const backend &mine) { return value_at(mine, "a.b") + tree_of(mine); }},
        {"set",
         [](const backend &mine) { return mine.keys->set("a.b", "new", nullptr) ? "1" : "0"; }},
        {"set under a lock",
         [](const backend &mine) {
             auto held = mine.locks->acquire("LKRT.a", lock_mode::exclusive, 0, PART);
             return mine.keys->set("a.b", "new", held.get()) ? "1" : "0";
         }},
        {"apply under a lock",
         [](const backend &mine) {
             auto held = mine.locks->acquire("LKRT.a", lock_mode::exclusive, 0, PART);
             return counts_of(mine.keys->apply({removal("a.c")}, {{held.get()}, 0}));
         }},
        {"wait for a lock",
         [&](const backend &mine) {
             auto theirs = sound.locks->acquire("LKRT.a", lock_mode::exclusive, 0);
             member.at_watch = [&] { theirs.reset(); };
             auto held = mine.locks->acquire("LKRT.a", lock_mode::shared, WAIT_MS, PART);
             auto seen = held->as_of_grant();
             std::string value;
             return seen != nullptr && !seen->read("a.b", &value) ? "none" : "";
         }},
        {"list and take all locks",
         [](const backend &mine) {
             auto all = mine.locks->acquire_all(WAIT_MS);
             auto users = mine.locks->users({});
             return users.empty() ? std::string() : users[0].name;
         }},
        {"apply",
         [](const backend &mine) {
             return counts_of(mine.keys->apply({put("a.b", "new"), removal("a.c"), put("a.x.y")}));
         }},
        {"apply in pieces",
         [](const backend &mine) { return counts_of(mine.keys->apply(many())); }},
        {"resume",
         [](const backend &mine) { return mine.keys->finish_apply(finish::resume) ? "1" : "0"; },
         true},
        {"undo",
         [](const backend &mine) { return mine.keys->finish_apply(finish::undo) ? "1" : "0"; },
         true},
        {"follow",
         [&](const backend &mine) {
             const std::string changes = changes_of(mine);
             change_batch seen;
             while (seen.changes.empty())
                 seen = mine.keys->changes_since("a", begun, std::chrono::milliseconds(WAIT_MS))
                            .value();
             return changes + " " + std::to_string(seen.changes.size());
         }},
        {"check",
         [&](const backend &) {
             std::string found;
             auto counts = KEYVIEW_BACKEND_KIND.check(
                 member.url + prefix, [&](auto &path, auto &reason) { found += path + reason; },
                 [](auto, auto) {});
             return found + std::to_string(counts.keys);
         }},
    };
};

static void without_keys(wire::TxnResponse *out) {
    for (auto &one : *out->mutable_responses())
        one.mutable_response_range()->clear_kvs();
}
static void without_revisions(wire::TxnResponse *out) {
    for (auto &one : *out->mutable_responses())
        for (auto &key : *one.mutable_response_range()->mutable_kvs()) {
            key.set_create_revision(0);
            key.set_mod_revision(0);
        }
}
static void with_other_values(wire::TxnResponse *out) {
    for (auto &one : *out->mutable_responses())
        for (auto &key : *one.mutable_response_range()->mutable_kvs())
            key.set_value("odd");
}
static void with_the_other_outcome(wire::TxnResponse *out) {
    out->set_succeeded(!out->succeeded());
}

// The answer to each call of each work is lost once, and is another bad one
// once. A work whose call can be repeated ends as if nothing had happened, its
// entry in the history included; another one is done or not. Whatever an answer
// contained, the next program can do the work.
TEST_F(StandIn, OneBadAnswerChangesNothing) {
    const bad_answer ROWS[] = {
        {"lost", true, true, {StatusCode::UNAVAILABLE, "x"}},
        {"lost at the end", true, true, {StatusCode::CANCELLED, "x"}},
        {"broken off", true, true, {StatusCode::INTERNAL, "x"}},
        {"dropped", false, true, {StatusCode::UNKNOWN, "x"}},
        {"stopped", false, true, {StatusCode::ABORTED, "x"}},
        {"too many", false, true, {StatusCode::RESOURCE_EXHAUSTED, "too many requests"}},
        {"no lease", false, false, {StatusCode::NOT_FOUND, "requested lease not found"}},
        {"a lease", false, false, {StatusCode::FAILED_PRECONDITION, "lease already exists"}},
        {"compacted", false, false, {StatusCode::OUT_OF_RANGE, "revision has been compacted"}},
        {"full", false, false, REFUSED_AS_FULL},
        {"denied", false, false, {StatusCode::PERMISSION_DENIED, "permission denied"}},
        {"no login", false, false, {StatusCode::UNAUTHENTICATED, "x"}},
        {"old login",
         false,
         false,
         {StatusCode::INVALID_ARGUMENT, "revision of auth store is old"}},
        {"corrupt", false, false, {StatusCode::DATA_LOSS, "corrupt cluster"}},
        {"odd", false, false, {StatusCode::OUT_OF_RANGE, "x"}},
        {"without keys", true, false, {}, without_keys},
        {"without revisions", true, false, {}, without_revisions},
        {"with other values", true, false, {}, with_other_values},
        {"with the other outcome", true, false, {}, with_the_other_outcome}};
    size_t next = 0;
    int answers = 0;
    for (const work &one : WORKS) {
        SCOPED_TRACE(one.label);
        begin(one.half_applied);
        member.left = 0;
        const std::string result = run(one, false), after = state();
        const int calls = -member.left;
        ASSERT_GT(calls, 0);
        for (int n = 0; n < 2 * calls; ++n) {
            const int call = n / 2 + 1;
            member.bad = ROWS[n % 2 == 0 ? 0 : next++ % std::size(ROWS)];
            SCOPED_TRACE(member.bad.label + (", call " + std::to_string(call)));
            begin(one.half_applied);
            member.left = call;
            const std::string out = run(one, !member.bad.passes);
            answers += member.left.exchange(0) <= 0;
            if (out.empty()) {
                sound.keys->finish_apply(finish::undo);
                const std::string then = state();
                EXPECT_TRUE(then == before || then == after) << then;
            } else if (member.bad.change == nullptr) {
                EXPECT_EQ(out, result);
                EXPECT_EQ(state(), after);
            }
            if (HasFailure()) return;
        }
    }
    EXPECT_GT(answers, 100);
}

}  // namespace keyview::test
