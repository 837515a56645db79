// The queue of a lock, from asking to the grant.
#include "cluster/etcd_locks.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "cluster/faults.h"
#include "cluster/half_applied.h"
#include "cluster/tree_part.h"

namespace keyview::host {

namespace {

// Keys before the own one that it must wait for.
struct blocker {
    std::string key;
    int64_t created;
    std::string holder;
};

class request_for_lock {
  public:
    request_for_lock(std::shared_ptr<session> cluster, std::string_view name, lock_mode mode,
                     const lock_cover &wanted)
        : cluster_(std::move(cluster)),
          name_(name),
          mode_(mode),
          part_(cluster_->keys(), std::string(wanted.path), wanted.depth),
          reads_(!wanted.path.empty() && elements_of(wanted.path) <= MOST_ELEMENTS) {}

    std::shared_ptr<held_lock> acquire(wait_limit limit) {
        try {
            while (!enter()) {
                while (place_ != nullptr) {
                    wait(limit);
                    if (granted_now()) return granted();
                }
            }
            return granted();
        } catch (const etcd_error &error) {
            bool observes = mode_ == lock_mode::shared && reads_;
            if (error.reason != etcd_reason::no_space || !observes) throw;
        }
        place_.reset();
        return observe(limit);
    }

  private:
    key_range conflicts() const {
        return mode_ == lock_mode::shared ? cluster_->keys().lock_writers(name_)
                                          : cluster_->keys().lock_queue(name_);
    }

    void add_place(wire_ops *ops) const {
        add_put(ops, place_->key(), this_process(), place_->lease()->id);
    }

    // Takes a place in the queue; true if that is the lock already.
    bool enter() {
        steady::time_point end = cluster_->calls().answer_end();
        for (;;) {
            std::string key = cluster_->keys().lock_place(name_, mode_, cluster_->unique_name());
            place_ =
                std::make_unique<queue_place>(cluster_, std::move(key), cluster_->take_place(end));
            try {
                return put_place(end);
            } catch (const etcd_error &error) {
                if (error.reason != etcd_reason::lease_gone || steady::now() >= end) throw;
                cluster_->note_lost(place_->lease());
            }
        }
    }

    bool put_place(steady::time_point end) {
        wire::TxnRequest request;
        require_created(&request, conflicts(), 0);
        require_created(&request, {place_->key(), ""}, 0);
        add_place(request.mutable_success());
        add_range(request.mutable_success(), {place_->key(), ""});
        if (reads_) part_.ask(cluster_->deepest(), 0, request.mutable_success());
        // Sent twice, it leaves the place as it is: only sets change it.
        wire::TxnRequest *once = request.add_failure()->mutable_request_txn();
        require_created(once, {place_->key(), ""}, 0);
        add_place(once->mutable_success());
        add_range(request.mutable_failure(), {place_->key(), ""});
        add_range(request.mutable_failure(), cluster_->keys().lock_queue(name_));
        bool repeated = false;
        wire::TxnResponse response = cluster_->txn(request, end, &repeated);
        if (repeated) cluster_->close(place_->lease());
        const wire::RangeResponse &own = response.responses(1).response_range();
        if (own.kvs_size() != 1)
            throw host_error(failure::registry, "the cluster lost a lock at once");
        place_->note(own.kvs(0));
        if (response.succeeded()) {
            place_->granted = response.header().revision();
            whole_ = reads_ && part_.take(&response, 2) && part_.marker().empty();
            return true;
        }
        note_queue(response, 2);
        return false;
    }

    void note_queue(const wire::TxnResponse &response, int op) {
        seen_at_ = response.header().revision();
        blockers_.clear();
        key_range against = conflicts();
        for (const wire::KeyValue &one : response.responses(op).response_range().kvs()) {
            bool conflicting = one.key() >= against.begin && one.key() < against.end;
            if (conflicting && one.create_revision() < place_->created()) {
                blockers_.push_back({one.key(), one.create_revision(), one.value()});
            }
        }
        std::sort(blockers_.begin(), blockers_.end(),
                  [](const blocker &a, const blocker &b) { return a.created < b.created; });
    }

    // Returns early, too, in case that an event was missed; and the lease must live.
    void wait(wait_limit limit) {
        if (blockers_.empty()) return;
        if (!end_) end_ = start_ + std::chrono::milliseconds(limit.ms());
        if (steady::now() >= *end_) throw too_late();
        std::chrono::seconds ttl = cluster_->calls().settings().lease_ttl;
        cluster_->keep_alive();
        cluster_->calls().await_deletion(blockers_.back().key, seen_at_,
                                         std::min(*end_, steady::now() + ttl / 3));
    }

    // A shared lock without a key: see observed_lock.
    std::shared_ptr<held_lock> observe(wait_limit limit) {
        half_applied_wait patience(cluster_.get());
        for (;;) {
            wire::TxnRequest request;
            require_created(&request, conflicts(), 0);
            part_.ask(cluster_->deepest(), 0, request.mutable_success());
            add_range(request.mutable_failure(), conflicts());
            wire::TxnResponse response = cluster_->txn(request, cluster_->calls().answer_end());
            if (!response.succeeded()) {
                const wire::KeyValue &writer = response.responses(0).response_range().kvs(0);
                blockers_ = {{writer.key(), writer.create_revision(), writer.value()}};
                seen_at_ = response.header().revision();
                wait(limit);
                continue;
            }
            bool whole = part_.take(&response, 0);
            cluster_->note_depth(part_.deepest());
            if (whole && part_.marker().empty())
                return std::make_shared<observed_lock>(cluster_, part_);
            if (whole) patience.wait(part_.marker());
        }
    }

    bool granted_now() {
        try {
            return look_again();
        } catch (const etcd_error &) {
            place_->note_silence();
            throw;
        }
    }

    // True if the lock is granted. Else the queue was read anew; without a place if ours is gone.
    bool look_again() {
        static constexpr size_t MOST_COMPARED = 100;
        steady::time_point end = cluster_->calls().answer_end();
        wire::TxnRequest request;
        if (!faults.grant_unchecked)
            require_created(&request, {place_->key(), ""}, place_->created());
        size_t compared = std::min(blockers_.size(), MOST_COMPARED);
        for (size_t n = 0; n < compared; ++n)
            require_created(&request, {blockers_[blockers_.size() - 1 - n].key, ""}, 0);
        bool grants = compared == blockers_.size();
        if (grants && reads_) part_.ask(cluster_->deepest(), 0, request.mutable_success());
        for (wire_ops *ops : {request.mutable_failure(), request.mutable_success()}) {
            if (ops == request.mutable_success() && grants) continue;
            add_range(ops, {place_->key(), ""});
            add_range(ops, cluster_->keys().lock_queue(name_));
        }
        wire::TxnResponse response = cluster_->txn(request, end);
        if (response.succeeded() && grants) {
            place_->granted = response.header().revision();
            whole_ = reads_ && part_.take(&response, 0) && part_.marker().empty();
            return true;
        }
        const wire::RangeResponse &own = response.responses(0).response_range();
        if (own.kvs_size() == 0 || own.kvs(0).create_revision() != place_->created()) {
            cluster_->note_lost(place_->lease());
            place_.reset();
        } else {
            note_queue(response, 1);
        }
        return false;
    }

    std::shared_ptr<held_lock> granted() {
        std::unique_ptr<moment> seen;
        if (whole_) {
            cluster_->note_depth(part_.deepest());
            seen = moment_of(cluster_, std::move(part_));
        }
        return std::make_shared<etcd_lock>(std::move(place_), std::move(seen));
    }

    host_error too_late() const {
        auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - start_);
        return {failure::lock, "the lock " + name_ + " was not granted within " +
                                   std::to_string(waited.count()) + " ms: held by " +
                                   blockers_.back().holder};
    }

    std::shared_ptr<session> cluster_;
    std::string name_;
    lock_mode mode_;
    tree_part part_;
    bool reads_;          // whether the part is wanted
    bool whole_ = false;  // whether it has come
    steady::time_point start_ = steady::now();
    std::optional<steady::time_point> end_;  // of the wait, once there is something to wait for
    std::unique_ptr<queue_place> place_;
    int64_t seen_at_ = 0;
    std::vector<blocker> blockers_;  // the nearest last
};

}  // namespace

std::shared_ptr<held_lock> etcd_locks::acquire(std::string_view name, lock_mode mode,
                                               wait_limit limit, const lock_cover &wanted) {
    return request_for_lock(cluster_, name, mode, wanted).acquire(limit);
}

// A place waits if one before it in its queue conflicts with it.
std::vector<lock_use> etcd_locks::users(const std::vector<std::string> &names) {
    (void)names;
    wire::TxnRequest request;
    add_range(request.mutable_success(), cluster_->keys().all_locks());
    wire::TxnResponse response = cluster_->txn(request, cluster_->calls().answer_end());
    std::vector<wire::KeyValue> places(response.responses(0).response_range().kvs().begin(),
                                       response.responses(0).response_range().kvs().end());
    std::sort(places.begin(), places.end(), [](const wire::KeyValue &a, const wire::KeyValue &b) {
        return a.create_revision() < b.create_revision();
    });
    std::vector<lock_use> all;
    for (const wire::KeyValue &place : places) {
        lock_use use;
        if (!cluster_->keys().lock_of_place(place.key(), &use.name, &use.mode)) continue;
        use.holder = place.value();
        use.waits = std::any_of(all.begin(), all.end(), [&](const lock_use &before) {
            bool both_share = before.mode == lock_mode::shared && use.mode == lock_mode::shared;
            return before.name == use.name && !both_share;
        });
        all.push_back(std::move(use));
    }
    return all;
}

}  // namespace keyview::host
