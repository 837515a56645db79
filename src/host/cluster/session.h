// One session of this process with a cluster: its connections, and the lease under which its locks
// lie. Shared by all contexts and threads that use the same cluster.
//
// The session has no thread of its own. A lease that is due is kept alive from within calls and
// waits, without waiting for the answer; when nobody calls it ends, and the next lock begins a new
// one. A lease is counted from before it was asked for, so it ends here before it ends there.
#ifndef KEYVIEW_HOST_CLUSTER_SESSION_H
#define KEYVIEW_HOST_CLUSTER_SESSION_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/cluster/connection.h"
#include "host/cluster/layout.h"

namespace keyview::host {

// Who we are, for those who wait for us: "keyviewctl, process 17 on db1".
std::string this_process();

class session {
  public:
    explicit session(const cluster_settings &settings);
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    ~session();  // revokes the lease

    connection &calls() { return calls_; }
    const layout &keys() const { return keys_; }

    // One call, while which the lease is kept alive.
    wire::TxnResponse txn(const wire::TxnRequest &request, steady::time_point end);

    // A lease that lives, a new one if need be.
    int64_t lease(steady::time_point end);
    bool lives(int64_t lease) const;
    void note_lost(int64_t lease);
    void keep_alive();

    // A name for a place in a queue or a change set, which nobody else uses.
    std::string unique_name();

    // Gives up a place in the queue of a lock. If the cluster does not answer soon it is tried
    // again with the next lock; and the place ends with the lease.
    void leave(const std::string &place) noexcept;
    void leave_the_rest();

  private:
    struct lease_state {
        std::mutex mutex;
        int64_t id = 0;  // 0 if there is none
        steady::time_point asked;
        steady::time_point end;
        bool asking = false;
    };

    connection calls_;
    layout keys_;
    uint64_t generation_;
    std::shared_ptr<lease_state> lease_ = std::make_shared<lease_state>();
    std::mutex granting_;

    void keep_for_later(const std::string &place) noexcept;

    std::mutex left_mutex_;
    std::vector<std::string> left_;  // places that could not be given up yet
};

}  // namespace keyview::host

#endif
