// Named locks of a cluster: queues of keys that live as long as the sessions of those who wait.
//
// Who asks puts a key of its own into the queue of the name; the order of the queue is that of the
// keys' creation. The lock is granted once no key before the own one conflicts with it: none at all
// for an exclusive lock, no exclusive one for a shared lock. When the queue is free, one
// transaction does it all and brings the part of the tree that the holder wants. Otherwise the key
// waits for the nearest one that conflicts, and the transaction that grants looks whether the own
// key is still there: it goes with its session.
#ifndef KEYVIEW_CLUSTER_ETCD_LOCKS_H
#define KEYVIEW_CLUSTER_ETCD_LOCKS_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/etcd_moment.h"
#include "cluster/session.h"
#include "host/registry/backend.h"

namespace keyview::host {

// A key in the queue of a lock; given up at the end.
class queue_place {
  public:
    queue_place(std::shared_ptr<session> cluster, std::string key,
                std::shared_ptr<session::lease> lease)
        : cluster_(std::move(cluster)), key_(std::move(key)), lease_(std::move(lease)) {}
    queue_place(const queue_place &) = delete;
    queue_place &operator=(const queue_place &) = delete;
    ~queue_place() { known_ ? cluster_->leave(key_, lease_) : cluster_->leave_unknown(lease_); }

    const std::string &key() const { return key_; }
    session::lease *lease() const { return lease_.get(); }

    // Who asks wants to keep it: its lease is kept alive, too.
    bool lives() const {
        cluster_->keep_alive();
        return cluster_->lives(*lease_);
    }

    // The revision of its creation, which no other key of the same name ever has.
    int64_t created() const { return created_; }

    // The revision of its latest change: each set under the lock changes it, so that a set that was
    // sent twice is carried out once.
    int64_t changed() const { return changed_; }

    void note(const wire::KeyValue &known) {
        created_ = known.create_revision();
        changed_ = known.mod_revision();
        known_ = true;
    }
    void note_changed(int64_t revision) { changed_ = revision; }

    // A set under the lock that got no answer may still be carried out, so none may follow it.
    bool in_doubt() const { return in_doubt_; }
    void note_doubt() { in_doubt_ = true; }

    int64_t granted = 0;  // the revision at which the lock was granted; 0 before

    // The cluster does not answer: the end should not wait for it once more.
    void note_silence() { known_ = false; }

  private:
    std::shared_ptr<session> cluster_;
    std::string key_;
    std::shared_ptr<session::lease> lease_;
    int64_t created_ = 0;
    int64_t changed_ = 0;
    bool in_doubt_ = false;
    bool known_ = false;  // whether the cluster told about it last
};

class etcd_lock final : public held_lock {
  public:
    etcd_lock(std::unique_ptr<queue_place> place, std::unique_ptr<moment> granted)
        : place_(std::move(place)), granted_(std::move(granted)) {}

    bool still_held() const override { return place_->lives(); }
    std::unique_ptr<moment> as_of_grant() override { return std::move(granted_); }

    queue_place *place() const { return place_.get(); }

  private:
    std::unique_ptr<queue_place> place_;
    std::unique_ptr<moment> granted_;
};

// A shared lock for a reader of a cluster whose database is full, so that it takes no further key.
// It has no key of its own: the transaction that granted it verified that no writer holds or awaits
// the lock, and read the part. What it shows is as of that moment; no set is possible under it.
class observed_lock final : public held_lock {
  public:
    observed_lock(std::shared_ptr<session> cluster, tree_part part)
        : cluster_(std::move(cluster)), part_(std::move(part)) {}

    bool still_held() const override { return false; }
    std::unique_ptr<moment> as_of_grant() override { return moment_of(cluster_, part_); }

  private:
    std::shared_ptr<session> cluster_;
    tree_part part_;
};

class etcd_locks final : public lock_service {
  public:
    explicit etcd_locks(std::shared_ptr<session> cluster) : cluster_(std::move(cluster)) {}

    std::shared_ptr<held_lock> acquire(std::string_view name, lock_mode mode, wait_limit limit,
                                       const lock_cover &wanted) override;

    // Those of all locks: the queues are told by the cluster.
    std::vector<lock_use> users(const std::vector<std::string> &names) override;

  private:
    std::shared_ptr<session> cluster_;
};

}  // namespace keyview::host

#endif
