// One session of this process with a cluster: its connections, and the leases under which its locks
// lie. Shared by all contexts and threads that use the same cluster.
//
// The session has no thread of its own. A lease that is due is kept alive from within calls and
// waits, without waiting for the answer; when nobody calls it ends, and the next lock begins a new
// one. A lease is counted from before it was asked for, so it ends here before it ends there.
//
// A request that was sent twice may be carried out late, and put a place into a queue that was
// given up long ago. So a lease under which that can happen takes no further places, and is revoked
// with its last one: under a revoked lease nothing can appear.
#ifndef KEYVIEW_CLUSTER_SESSION_H
#define KEYVIEW_CLUSTER_SESSION_H

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cluster/connection.h"
#include "cluster/layout.h"

namespace keyview::host {

// Who we are, for those who wait for us: "keyviewctl, process 17 on db1".
std::string this_process();

class session {
  public:
    // Guarded by the session.
    struct lease {
        int64_t id = 0;
        steady::time_point asked;
        steady::time_point end;
        bool asking = false;
        bool closed = false;  // takes no further places
        size_t places = 0;
    };

    explicit session(const cluster_settings &settings);
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    ~session();  // revokes the lease

    connection &calls() { return calls_; }
    const layout &keys() const { return keys_; }

    // The depth of the tree when it was read last, and at least that of a tree with a service.
    uint32_t deepest() const { return deepest_; }
    void note_depth(uint32_t deepest) { deepest_ = std::max(deepest, USUAL_DEPTH); }

    // One call, while which the leases are kept alive.
    wire::TxnResponse txn(const wire::TxnRequest &request, steady::time_point end,
                          bool *repeated = nullptr);

    // A name for a place in a queue or a change set, which nobody else uses.
    std::string unique_name();

    // A lease that lives and takes places, with one place more. The first lock brings the lease.
    std::shared_ptr<lease> take_place(steady::time_point end);

    bool lives(const lease &one) const;
    void close(lease *one);
    void note_lost(lease *one);
    void keep_alive();

    // Gives up a place, which must be one of the lease's. A place that the cluster may not know, or
    // does not answer about, goes with its lease.
    void leave(const std::string &place, const std::shared_ptr<lease> &its) noexcept;
    void leave_unknown(const std::shared_ptr<lease> &its) noexcept;

  private:
    // Shared with the answers to keepalives, which may come late.
    struct leases {
        std::mutex mutex;
        std::vector<std::shared_ptr<lease>> all;  // the one that takes places last
        std::vector<int64_t> to_revoke;
    };

    std::shared_ptr<lease> open_lease(size_t new_places);
    void require_lease(steady::time_point end);
    void revoke_the_rest();
    bool drop_place(const std::shared_ptr<lease> &its) noexcept;
    void revoke(int64_t id, std::chrono::milliseconds patience) noexcept;

    static constexpr uint32_t USUAL_DEPTH = 8;

    connection calls_;
    layout keys_;
    std::atomic<uint32_t> deepest_{USUAL_DEPTH};
    uint64_t generation_;
    std::shared_ptr<leases> leases_ = std::make_shared<leases>();
    std::mutex granting_;
};

}  // namespace keyview::host

#endif
