// One session of this process with a cluster: its connections, and the leases of its locks. Shared by
// all contexts and threads that use the same cluster.
//
// The session has no thread of its own. Calls and waits send the keepalives that are due, without
// waiting for the answer; without calls a lease ends, and the next lock takes a new one. The time of
// a lease is counted from before its request, so that it ends here before it ends in the cluster.
//
// A request that was sent twice may be carried out late, and create an entry that was given up long
// ago. So a lease under which that can happen is closed to further entries, and revoked with its last
// one: under a revoked lease no key can be created.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cluster/connection.h"
#include "cluster/layout.h"
#include "host/support/unique.h"

namespace keyview::host {

class session : unique {
  public:
    // Guarded by the session.
    struct lease {
        int64_t id = 0;
        steady::time_point requested;
        steady::time_point end;
        steady::time_point renewing_until;  // at most; a renewal may be lost
        bool closed = false;                // to further entries
        size_t entries = 0;
    };

    explicit session(const cluster_settings &settings);
    ~session();  // revokes the lease

    connection &calls() { return calls_; }
    const layout &keys() const { return keys_; }

    // The depth of the tree when it was read last, and at least that of a tree with a service; how
    // many changes it had then.
    uint32_t deepest() const { return deepest_; }
    uint64_t tree_changes() const { return tree_changes_; }
    void note_tree(uint32_t deepest, uint64_t changes) {
        deepest_ = std::max(deepest, USUAL_DEPTH);
        tree_changes_ = std::max(changes, tree_changes_.load());
    }

    // Runs one call and sends due keepalives before it.
    wire::TxnResponse txn(const wire::TxnRequest &request, steady::time_point end,
                          bool *repeated = nullptr);
    wire::TxnResponse txn(const wire::TxnRequest &request, bool *repeated = nullptr) {
        return txn(request, calls_.answer_end(), repeated);
    }

    // A unique name for an entry of a queue or a change set.
    std::string unique_name();

    // Adds an entry to a living lease. The first entry takes the lease.
    std::shared_ptr<lease> add_entry(steady::time_point end);

    bool lives(const lease &one) const;
    void close(lease *one);
    void note_lost(lease *one);
    void keep_alive();

    // Gives up an entry of the lease. An entry that may not exist, or about which the cluster does
    // not answer, is deleted with its lease.
    void release(const std::string &entry, const std::shared_ptr<lease> &its) noexcept;
    void release_unknown(const std::shared_ptr<lease> &its) noexcept;

  private:
    // Shared with the answers to keepalives, which may come late.
    struct leases {
        std::mutex mutex;
        std::vector<std::shared_ptr<lease>> all;  // the open one last
    };

    std::shared_ptr<lease> open_lease(size_t new_entries);
    void require_lease(steady::time_point end);
    void drop_unused();
    bool drop_entry(lease *its) noexcept;
    void revoke(lease *one, std::chrono::milliseconds wait) noexcept;

    static constexpr uint32_t USUAL_DEPTH = 8;

    connection calls_;
    layout keys_;
    std::atomic<uint32_t> deepest_{USUAL_DEPTH};
    std::atomic<uint64_t> tree_changes_{0};
    std::shared_ptr<leases> leases_ = std::make_shared<leases>();
    std::mutex granting_;
};

}  // namespace keyview::host
