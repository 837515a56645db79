// Named locks of a cluster: queues of keys that exist as long as the sessions of their owners.
//
// Each waiter adds its own key to the queue of the name; the queue is ordered by creation. The lock
// is granted once no earlier key conflicts with it: none at all for an exclusive lock, no exclusive
// one for a shared lock. If none does, one transaction adds the key, grants the lock and reads the
// part of the tree that it covers. Otherwise the waiter watches the nearest conflicting key, and the
// granting transaction requires that its own key still exists: the key is deleted with its session.
//
// Many locks are taken as one, ALL_LOCKS: its keys conflict with those of every name.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/etcd_moment.h"
#include "cluster/session.h"
#include "host/registry/backend.h"
#include "host/support/fork.h"
#include "host/support/unique.h"

namespace keyview::host {

// A key in the queue of a lock. The destructor deletes it.
class queue_entry : unique {
  public:
    queue_entry(std::shared_ptr<session> cluster, std::string key,
                std::shared_ptr<session::lease> lease)
        : cluster_(std::move(cluster)), key_(std::move(key)), lease_(std::move(lease)) {}
    ~queue_entry() { known_ ? cluster_->release(key_, lease_) : cluster_->release_unknown(lease_); }

    const std::string &key() const { return key_; }
    session::lease *lease() const { return lease_.get(); }

    // Also keeps the lease alive: the caller still needs the lock. A forked child has none of its
    // parent's.
    bool lives() const {
        if (generation_ != fork_generation()) return false;
        cluster_->keep_alive();
        return cluster_->lives(*lease_);
    }

    // The revision of its creation, which no other key of the same name ever has.
    int64_t created() const { return created_; }

    // Whether a read of its key found this entry, not a later one of the same key.
    bool is_in(const wire::RangeResponse &found) const {
        return found.kvs_size() == 1 && found.kvs(0).create_revision() == created_;
    }

    // The revision of its latest change. Each set under the lock changes it, so that a set that
    // is sent twice is carried out once.
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

    // If the cluster does not answer, the destructor must not wait for it again.
    void note_answer(bool answered) { known_ = answered; }

  private:
    uint64_t generation_ = fork_generation();
    std::shared_ptr<session> cluster_;
    std::string key_;
    std::shared_ptr<session::lease> lease_;
    int64_t created_ = 0;
    int64_t changed_ = 0;
    bool in_doubt_ = false;
    bool known_ = false;  // whether the latest answer contained it
};

class etcd_lock final : public held_lock {
  public:
    etcd_lock(std::unique_ptr<queue_entry> entry, std::unique_ptr<moment> granted)
        : entry_(std::move(entry)), granted_(std::move(granted)) {}

    bool still_held() const override { return entry_->lives(); }
    std::unique_ptr<moment> as_of_grant() override { return std::move(granted_); }

    queue_entry *entry() const { return entry_.get(); }

  private:
    std::unique_ptr<queue_entry> entry_;
    std::unique_ptr<moment> granted_;
};

// A shared lock for a reader of a cluster whose database is full, so that it takes no further key.
// It has no key of its own: the transaction that granted it verified that no writer holds or awaits
// the lock, and read the part. Reads under it are as of that moment; sets are refused.
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

    // Takes the lock that stands for all.
    std::shared_ptr<held_lock> acquire_all(wait_limit limit) override;

    // Returns the users of all locks, whatever the names: the cluster contains their queues.
    std::vector<lock_use> users(const std::vector<std::string> &names) override;

  private:
    std::shared_ptr<session> cluster_;
};

}  // namespace keyview::host
