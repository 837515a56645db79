// Calls while members of the cluster are dead, silent or full.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <thread>

#include "shared.h"

namespace keyview::test {

// Every call moves on to another member, whichever is dead or silent.
TEST(Members, ADeadOrSilentMemberIsSkipped) {
    etcd_members three;
    backend registry = open_cluster(three.url());
    registry.keys->apply({put("a.b", "0")});
    int n = 0;
    uint64_t seen = registry.keys->now()->current().tree;
    auto works_on = [&] {
        double took = seconds_of([&] {
            auto held = registry.locks->acquire("LKRT.a", lock_mode::exclusive, 5000);
            std::string value = std::to_string(++n);
            EXPECT_TRUE(registry.keys->set("a.b", value, held.get()));
            EXPECT_EQ(value_at(registry, "a.b"), value);
        });
        EXPECT_LT(took, 3.0);
        std::vector<tree_change> told;
        for (int looks = 0; told.empty() && looks < 3; ++looks) {
            auto batch = registry.keys->changes_since("a", seen, std::chrono::milliseconds(1000));
            told = batch.value().changes;
            seen = batch->up_to;
        }
        ASSERT_EQ(told.size(), 1U);
        EXPECT_EQ(told[0].after, std::to_string(n));
    };
    for (size_t one = 0; one < three.count(); ++one) {
        three.stop(one);
        works_on();
        three.resume(one);
        three.await_ready(one);
        three.kill(one);
        works_on();
        three.start(one);
        three.await_ready(one);
    }
}

// The program sends only keepalives, and to a member that does not answer.
TEST(Members, ALockIsKeptWhileItsMemberIsSilent) {
    setting lease("KEYVIEW_LEASE_TTL", "5");
    etcd_members three;
    size_t follower = (three.leader() + 1) % three.count();
    backend registry = open_cluster("etcd://" + three.address(follower) + "," +
                                    three.address((follower + 1) % three.count()) + "/test");
    registry.keys->apply({put("a.b", "0")});
    auto held = registry.locks->acquire("LKRT.a", lock_mode::exclusive, 5000);
    three.stop(follower);
    double kept = seconds_of([&] {
        for (int looks = 0; looks < 350 && held->still_held(); ++looks)
            usleep(20000);
    });
    EXPECT_GT(kept, 6.5);
    EXPECT_TRUE(registry.keys->set("a.b", "1", held.get()));
}

TEST(Members, AMissingMajorityIsReported) {
    setting wait("KEYVIEW_ANSWER_WAIT", "2");
    etcd_members three;
    backend registry = open_cluster(three.url());
    registry.keys->apply({put("a.b", "0")});
    three.kill(1);
    three.kill(2);
    sleep(2);  // until the last member notices
    expect_failure([&] { value_at(registry, "a.b"); }, failure::registry, "More than half", 2);
    expect_failure([&] { registry.locks->acquire("LKRT.a", lock_mode::shared, 0); },
                   failure::registry, three.address(1) + ": connection refused", 2);
    three.kill(0);
    expect_failure([&] { registry.keys->set("a.b", "1", nullptr); }, failure::registry,
                   "keyviewctl doctor", 2);
    for (size_t one = 0; one < three.count(); ++one)
        three.start(one);
    three.await_ready(0);
    EXPECT_EQ(value_at(registry, "a.b"), "0");
}

// The library state of gRPC ends with the last session, and must not end in a thread of gRPC.
TEST(Members, ASessionEndsWhileItsKeepaliveIsUnderWay) {
    setting wait("KEYVIEW_ANSWER_WAIT", "1");
    setting lease("KEYVIEW_LEASE_TTL", "9");
    etcd_members three;
    {
        backend last = open_cluster(three.url());
        usleep(3100 * 1000);  // a third of the lease: the next call sends one, which waits as long
        for (size_t one = 0; one < three.count(); ++one)
            three.stop(one);
        expect_failure([&] { value_at(last, "a"); }, failure::registry, "does not answer", 1);
    }
    sleep(1);
    for (size_t one = 0; one < three.count(); ++one)
        three.resume(one);
    EXPECT_EQ(value_at(open_cluster(three.url()), "a"), "(none)");
}

// The worst state of each subject in the diagnosis.
static std::map<std::string, health> found_by_doctor(const std::string &url) {
    std::map<std::string, health> worst;
    KEYVIEW_BACKEND_KIND.diagnose(url, [&](const diagnosis &found) {
        EXPECT_FALSE(found.text.empty()) << found.subject;
        health &known = worst.emplace(found.subject, found.state).first->second;
        known = std::max(known, found.state);
    });
    return worst;
}

TEST(Members, ADoctorReportsTheStateOfEachMember) {
    setting wait("KEYVIEW_ANSWER_WAIT", "1");
    etcd_members three;
    std::string url = three.url();
    EXPECT_EQ(found_by_doctor(url)["registry"], health::bad) << "there is none yet";
    open_cluster(url).keys->apply({put("a.b", "0")});
    for (const auto &[subject, state] : found_by_doctor(url))
        EXPECT_EQ(state, health::good) << subject;
    three.kill(2);
    std::map<std::string, health> found = found_by_doctor(url);
    EXPECT_EQ(found["member " + three.address(2)], health::bad);
    EXPECT_EQ(found["member " + three.address(0)], health::good);
    three.kill(1);
    sleep(2);  // until the last member notices
    found = found_by_doctor(url);
    EXPECT_EQ(found["leader"], health::bad);
    EXPECT_EQ(found["registry"], health::bad);
}

// Under the alarm NOSPACE etcd refuses puts and leases, and permits reads and deletes.
TEST(Members, AFullDatabaseIsReadAndNeverWritten) {
    setting lease("KEYVIEW_LEASE_TTL", "60");  // no lock is lost on a busy machine
    etcd_members one(1, {"--quota-backend-bytes=1048576"});
    backend registry = open_cluster(one.url());
    auto tool = [&](const std::string &words) {
        int status = std::system(
            (KEYVIEWCTL " --registry " + one.url() + " " + words + " >/dev/null 2>&1").c_str());
        return WEXITSTATUS(status);
    };
    ASSERT_EQ(tool("apply " EXAMPLE_DOCUMENT), 0);
    registry.keys->apply({put("a.b", "0"), put("w.x", "0")});
    auto writer = registry.locks->acquire("LKRT.w", lock_mode::exclusive, 0);
    auto fill = [&] {
        for (int n = 0; n < 100; ++n)
            registry.keys->set("a.b", std::string(100000, static_cast<char>('a' + n % 20)),
                               nullptr);
    };
    std::string text;
    EXPECT_EQ(failure_of(fill, &text), failure::registry);
    EXPECT_NE(text.find("alarm NOSPACE"), text.npos) << text;
    for (const char *words :
         {"list", "get a", "ls", "tree", "export", "backup -", "enabled sales", "status sales",
          "show sales", "role sales", "lock list", "check", "lint", "watch --for 1"})
        EXPECT_EQ(tool(words), 0) << words;
    for (const char *words : {"disable sales", "set a.b x --yes", "rm a --yes"})
        EXPECT_NE(tool(words), 0) << words;
    EXPECT_EQ(tool("lock run --shared LKRT.a true"), 4) << "nothing would keep a writer away";

    auto read_under = [&](const char *name, const char *part, uint32_t wait_ms) {
        return registry.locks->acquire(name, lock_mode::shared, wait_ms, {part, reach::all_below});
    };
    auto observed = read_under("LKRT.a", "a", 0);
    for (int views = 0; views < 2; ++views) {
        EXPECT_TRUE(observed->as_of_grant()->read("a.b", &text));
        EXPECT_EQ(text.size(), 100000U);
    }
    expect_failure([&] { read_under("LKRT.w", "w", 0); }, failure::lock, "held by", 0);
    std::thread reader([&] { EXPECT_NO_THROW(read_under("LKRT.w", "w", 10000)); });
    usleep(200000);
    writer.reset();
    reader.join();

    uint64_t now = registry.keys->now()->current().tree;
    etcdctl(one, "compaction " + std::to_string(now));
    etcdctl(one, "defrag");
    etcdctl(one, "alarm disarm");
    EXPECT_EQ(failure_of([&] { registry.keys->set("a.b", "1", observed.get()); }), failure::lock);
    EXPECT_TRUE(observed->as_of_grant()->read("a.b", &text));
    EXPECT_TRUE(registry.keys->set("a.b", "1", nullptr));
}

}  // namespace keyview::test
