// Calls to the members of an etcd cluster, one channel to each.
//
// A call tries the members in turn until one answers or the time is over; a try without an answer is
// soon repeated at the next member. So a request may be carried out twice, or late, and must be
// idempotent. One table in call_failure.cpp contains the failures that are tried again, and the
// remedies for the others.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cluster/call_failure.h"
#include "cluster/cluster_settings.h"
#include "cluster/request.h"
#include "host/support/unique.h"

namespace keyview::host {

class keepalives;

class connection : unique {
  public:
    explicit connection(const cluster_settings &settings);
    ~connection();

    // Calls that any member may answer. They throw etcd_error. repeated is set if an earlier
    // try than the answered one may have been carried out, or still may be.
    wire::TxnResponse txn(const wire::TxnRequest &request, steady::time_point end,
                          bool *repeated = nullptr);
    void grant(int64_t lease, std::chrono::seconds ttl, steady::time_point end);
    void revoke(int64_t lease, steady::time_point end);
    wire::AlarmResponse alarms(steady::time_point end);

    // Sends a keepalive and returns at once. on_ttl is called once, on another thread: with the
    // remaining seconds of the lease, 0 if it is lost, or -1 without an answer.
    void keep_alive(int64_t lease, const std::function<void(int64_t ttl)> &on_ttl);

    // Waits until the key is deleted after that revision, the wait fails, or the time is over.
    void await_deletion(const std::string &key, int64_t after_revision, steady::time_point end);

    // Delivers each response with events of the keys in [key, range_end) from that revision on,
    // until it returns false or the time is over. Throws etcd_error, compacted for instance.
    void follow(const wire::WatchCreateRequest &what, steady::time_point end,
                const std::function<bool(const wire::WatchResponse &)> &sink);

    // The first change of a key after a revision; nothing if there is none until the time is over.
    // Throws as follow does.
    std::optional<wire::Event> next_change(const std::string &key, int64_t after_revision,
                                           steady::time_point end);

    // One try at one member.
    wire::StatusResponse status_of(size_t at, steady::time_point end);

    // False in a forked child, which must not use it.
    bool of_this_process() const;
    const cluster_settings &settings() const { return settings_; }
    steady::time_point answer_end() const { return steady::now() + settings_.answer_wait; }

    // The number of answers that this process has waited for.
    uint64_t round_trips() const { return round_trips_.load(); }

  private:
    struct member;

    template <typename service, typename method, typename question, typename answer>
    void call(service member::*stub, method rpc, const question &asked, answer *response,
              steady::time_point end, bool *repeated = nullptr);
    void follow_once(const wire::WatchCreateRequest &what, steady::time_point end,
                     const std::function<bool(const wire::WatchResponse &)> &sink);
    void next_member(size_t after);
    void log_in(const std::string &refused, steady::time_point end);
    std::string token();
    bool find_tls_faults(std::vector<std::string> *failures) const;
    std::string no_answer_text(const std::vector<std::string> &failures, bool tls);

    cluster_settings settings_;
    uint64_t generation_;  // of the process that made it
    std::vector<std::unique_ptr<member>> members_;
    std::unique_ptr<keepalives> keepalives_;  // ends before the channels
    std::atomic<size_t> current_{0};
    std::atomic<uint64_t> round_trips_{0};
    std::timed_mutex login_mutex_;
    std::mutex token_mutex_;
    std::string token_;
};

}  // namespace keyview::host
