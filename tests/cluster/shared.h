// Helpers of the tests of clusters: one cluster for all tests that leave its members alone, and the
// tools of etcd.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "../host/registry.h"
#include "cluster/cluster.h"
#include "cluster/faults.h"
#include "members.h"

namespace keyview::test {

inline etcd_members &shared_members() {
    static etcd_members three;
    return three;
}

inline std::string fresh_prefix() {
    static int prefixes = 0;
    return "/test" + std::to_string(++prefixes);
}

// Uses the objects that are linked into the tests, not the module.
inline backend open_cluster(const std::string &url, open_mode mode = open_mode::create) {
    return KEYVIEW_BACKEND_KIND.open(url, mode);
}

inline void run(const std::string &command) {
    scratch_directory scratch;
    const std::string log = scratch.path + "/log";
    if (std::system(("{ set -x; " + command + "; } >" + log + " 2>&1").c_str()) == 0) return;
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    const std::string all = text.str();
    ADD_FAILURE() << all.substr(all.size() - std::min<size_t>(all.size(), 3000));
}

inline void etcdctl(const etcd_members &members, const std::string &words) {
    run("ETCDCTL_API=3 etcdctl --endpoints=" + members.address(0) + " " + words);
}

template <typename work>
double seconds_of(work &&body) {
    auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline std::string value_at(const backend &registry, const std::string &path) {
    std::string value;
    return registry.keys->now()->read(path, &value) ? value : "(none)";
}

// Runs a change set or its recovery and stops it after so many steps, as if it were killed. Returns
// whether it ended earlier.
template <typename work>
bool stop_after(int steps, work &&body) {
    auto outer = std::exchange(faults.before_step, [&] {
        if (steps-- <= 0) throw std::bad_alloc();
    });
    bool ended = true;
    try {
        body();
    } catch (const std::bad_alloc &) {
        ended = false;
    }
    faults.before_step = std::move(outer);
    return ended;
}

// Expects a failure with that text within the answer wait and what a busy machine adds. Without an answer
// wait of its own a test has one of 10 seconds.
template <typename work>
void expect_failure(work &&body, failure kind, const std::string &part, double answer_wait_s) {
    constexpr double BUSY_S = 1.5;
    std::string text;
    double took = seconds_of([&] { EXPECT_EQ(failure_of(body, &text), kind) << text; });
    EXPECT_NE(text.find(part), text.npos) << text;
    EXPECT_LT(took, answer_wait_s + BUSY_S) << text;
}

}  // namespace keyview::test
