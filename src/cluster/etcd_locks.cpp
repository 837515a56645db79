// The way of a lock through its queue.
#include "cluster/etcd_locks.h"

#include <algorithm>
#include <ctime>
#include <optional>
#include <vector>

#include "cluster/faults.h"
#include "host/registry/reported_wait.h"
#include "host/support/process.h"

namespace keyview::host {

namespace {

using queue = std::vector<wire::KeyValue>;

void sort_by_creation(queue *entries) {
    std::sort(entries->begin(), entries->end(), [](const auto &a, const auto &b) {
        return a.create_revision() < b.create_revision();
    });
}

class acquisition {
  public:
    acquisition(std::shared_ptr<session> cluster, std::string_view name, lock_mode mode,
                const lock_cover &wanted, wait_limit limit)
        : cluster_(std::move(cluster)),
          name_(name),
          mode_(mode),
          part_(cluster_->keys(), std::string(wanted.path), wanted.depth),
          reads_(!wanted.path.empty() && elements_of(wanted.path) <= MOST_ELEMENTS),
          limit_(limit),
          report_(limit, name_) {}

    std::shared_ptr<held_lock> acquire() {
        try {
            while (!enter()) {
                while (entry_ != nullptr) {
                    wait();
                    if (recheck()) return granted();
                }
            }
            return granted();
        } catch (const etcd_error &error) {
            bool observes = mode_ == lock_mode::shared && reads_;
            if (error.reason != etcd_reason::no_space || !observes) throw;
        }
        entry_.reset();
        return observe();
    }

  private:
    key_range conflicts() const {
        return mode_ == lock_mode::shared ? cluster_->keys().lock_writers(name_)
                                          : cluster_->keys().lock_queue(name_);
    }

    void add_own_key(wire_ops *ops) const {
        add_put(ops, entry_->key(), owner_, entry_->lease()->id);
    }

    // Adds an entry to the queue; true if the lock is granted with it.
    bool enter() {
        steady::time_point end = cluster_->calls().answer_end();
        for (;;) {
            std::string key = cluster_->keys().lock_entry(name_, mode_, cluster_->unique_name());
            entry_ =
                std::make_unique<queue_entry>(cluster_, std::move(key), cluster_->add_entry(end));
            try {
                return put_entry(end);
            } catch (const etcd_error &error) {
                if (error.reason != etcd_reason::lease_gone || steady::now() >= end) throw;
                cluster_->note_lost(entry_->lease());
            }
        }
    }

    bool put_entry(steady::time_point end) {
        wire::TxnRequest request;
        require_created(&request, conflicts(), 0);
        require_created(&request, cluster_->keys().lock_of_all(), 0);
        require_created(&request, {entry_->key(), ""}, 0);
        add_own_key(request.mutable_success());
        add_range(request.mutable_success(), {entry_->key(), ""});
        if (reads_) part_.ask(cluster_->deepest(), 0, request.mutable_success());
        // Sent twice, it does not write the entry again: only sets change it.
        wire::TxnRequest *once = request.add_failure()->mutable_request_txn();
        require_created(once, {entry_->key(), ""}, 0);
        add_own_key(once->mutable_success());
        add_range(request.mutable_failure(), {entry_->key(), ""});
        add_queues(request.mutable_failure());
        bool repeated = false;
        wire::TxnResponse response = cluster_->txn(request, end, &repeated);
        if (repeated) cluster_->close(entry_->lease());
        const wire::RangeResponse &own = range_in(response, 1);
        if (own.kvs_size() != 1)
            throw host_error(failure::registry, "the cluster lost the key of a lock at once");
        entry_->note(own.kvs(0));
        if (response.succeeded()) {
            entry_->granted = response.header().revision();
            whole_ = reads_ && part_.take(&response, 2) && part_.marker().empty();
            return true;
        }
        note_queues(response, 2);
        return false;
    }

    // What can conflict with the own entry: the queue of the name, and that of all locks.
    void add_queues(wire_ops *ops) const {
        add_range(ops, cluster_->keys().lock_queue(name_));
        if (name_ != ALL_LOCKS) add_range(ops, cluster_->keys().lock_of_all());
    }

    void note_queues(const wire::TxnResponse &response, int op) {
        seen_at_ = response.header().revision();
        blockers_.clear();
        key_range against = conflicts(), all = cluster_->keys().lock_of_all();
        auto within = [](const std::string &key, const key_range &range) {
            return key >= range.begin && key < range.end;
        };
        for (; op < response.responses_size(); ++op) {
            for (const wire::KeyValue &one : range_in(response, op).kvs()) {
                bool conflicting = within(one.key(), against) || within(one.key(), all);
                if (conflicting && one.create_revision() < entry_->created())
                    blockers_.push_back(one);
            }
        }
        sort_by_creation(&blockers_);
    }

    // Returns after a part of the TTL at the latest: an event may be missed, and the lease is renewed.
    void wait() {
        if (blockers_.empty()) return;
        if (!end_) end_ = start_ + std::chrono::milliseconds(limit_.ms(name_));
        if (steady::now() >= *end_) throw too_late();
        report_.note(blockers_.front().value());
        std::chrono::seconds ttl = cluster_->calls().settings().lease_ttl;
        cluster_->keep_alive();
        cluster_->calls().await_deletion(blockers_.back().key(), seen_at_,
                                         std::min(*end_, steady::now() + ttl / 3));
    }

    // A shared lock without a key: see observed_lock.
    std::shared_ptr<held_lock> observe() {
        half_applied_wait pending(cluster_.get());
        for (;;) {
            wire::TxnRequest request;
            const key_range all = cluster_->keys().lock_of_all();
            require_created(&request, conflicts(), 0);
            require_created(&request, all, 0);
            part_.ask(cluster_->deepest(), 0, request.mutable_success());
            add_range(request.mutable_failure(), conflicts());
            add_range(request.mutable_failure(), all);
            wire::TxnResponse response = cluster_->txn(request);
            if (!response.succeeded()) {
                bool of_name = range_in(response, 0).kvs_size() > 0;
                const wire::RangeResponse &found = range_in(response, of_name ? 0 : 1);
                if (found.kvs_size() == 0)
                    throw host_error(failure::registry, "the cluster refused a lock without cause");
                blockers_ = {found.kvs(0)};
                seen_at_ = response.header().revision();
                wait();
                continue;
            }
            bool whole = part_.take(&response, 0);
            cluster_->note_tree(part_.deepest(), part_.tree_changes());
            if (whole && part_.marker().empty())
                return std::make_shared<observed_lock>(cluster_, part_);
            if (whole) pending.wait(part_.marker());
        }
    }

    // True if the lock is granted. Else blockers_ is new; entry_ is null if the own key is gone.
    bool recheck() {
        static constexpr size_t MOST_COMPARED = 100;
        wire::TxnRequest request;
        if (!faults.grant_unchecked)
            require_created(&request, {entry_->key(), ""}, entry_->created());
        size_t compared = std::min(blockers_.size(), MOST_COMPARED);
        for (size_t n = 0; n < compared; ++n)
            require_created(&request, {blockers_[blockers_.size() - 1 - n].key(), ""}, 0);
        bool grants = compared == blockers_.size();
        if (grants && reads_) part_.ask(cluster_->deepest(), 0, request.mutable_success());
        for (wire_ops *ops : {request.mutable_failure(), request.mutable_success()}) {
            if (ops == request.mutable_success() && grants) continue;
            add_range(ops, {entry_->key(), ""});
            add_queues(ops);
        }
        entry_->note_answer(false);
        wire::TxnResponse response = cluster_->txn(request);
        entry_->note_answer(true);
        if (response.succeeded() && grants) {
            entry_->granted = response.header().revision();
            whole_ = reads_ && part_.take(&response, 0) && part_.marker().empty();
            return true;
        }
        if (!entry_->is_in(range_in(response, 0))) {
            cluster_->note_lost(entry_->lease());
            entry_.reset();
        } else {
            note_queues(response, 1);
        }
        return false;
    }

    std::shared_ptr<held_lock> granted() {
        std::unique_ptr<moment> seen;
        if (whole_) {
            cluster_->note_tree(part_.deepest(), part_.tree_changes());
            seen = moment_of(cluster_, std::move(part_));
        }
        return std::make_shared<etcd_lock>(std::move(entry_), std::move(seen));
    }

    host_error too_late() const {
        auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(steady::now() - start_);
        return {failure::lock, "the lock " + name_ + " was not granted within " +
                                   std::to_string(waited.count()) + " ms: held by " +
                                   blockers_.front().value()};
    }

    std::shared_ptr<session> cluster_;
    std::string name_;
    lock_mode mode_;
    tree_part part_;
    bool reads_;          // whether the part is to be read
    bool whole_ = false;  // whether it was read
    wait_limit limit_;
    reported_wait report_;
    std::string owner_ = this_process() + since_text(time(nullptr));
    steady::time_point start_ = steady::now();
    std::optional<steady::time_point> end_;  // of the wait, once there is something to wait for
    std::unique_ptr<queue_entry> entry_;
    int64_t seen_at_ = 0;
    queue blockers_;  // earlier entries that conflict with the own one, the nearest last
};

}  // namespace

std::shared_ptr<held_lock> etcd_locks::acquire(std::string_view name, lock_mode mode,
                                               wait_limit limit, const lock_cover &wanted) {
    return acquisition(cluster_, name, mode, wanted, limit).acquire();
}

// ---- All locks ----------------------------------------------------------------------------------

namespace {

// Waits for the end of the entries that are earlier than the own one, whatever their names.
class end_of_earlier {
  public:
    end_of_earlier(session *cluster, const queue_entry *own, reported_wait *report)
        : cluster_(cluster), own_(own), report_(report) {}

    // False if some are left at the end of the time, or the own entry is gone.
    bool wait(steady::time_point end) {
        for (;;) {
            wire::TxnRequest request;
            require_created(&request, {own_->key(), ""}, own_->created());
            add_range(request.mutable_success(), cluster_->keys().all_locks());
            wire::TxnResponse response = cluster_->txn(request);
            if (!response.succeeded()) return false;
            const wire::KeyValue *latest = latest_in(range_in(response, 0));
            if (latest == nullptr) return true;
            holder_ = latest->value();
            report_->note(holder_);
            if (steady::now() >= end) return false;
            std::chrono::seconds ttl = cluster_->calls().settings().lease_ttl;
            cluster_->keep_alive();
            cluster_->calls().await_deletion(latest->key(), response.header().revision(),
                                             std::min(end, steady::now() + ttl / 3));
        }
    }

    const std::string &holder() const { return holder_; }

  private:
    const wire::KeyValue *latest_in(const wire::RangeResponse &entries) const {
        const wire::KeyValue *latest = nullptr;
        for (const wire::KeyValue &one : entries.kvs()) {
            bool earlier = one.create_revision() < own_->created();
            if (earlier && (latest == nullptr || one.create_revision() > latest->create_revision()))
                latest = &one;
        }
        return latest;
    }

    session *cluster_;
    const queue_entry *own_;
    reported_wait *report_;
    std::string holder_;
};

}  // namespace

// A holder of one lock may wait for a further one, behind this one: so it is given up now and then.
std::shared_ptr<held_lock> etcd_locks::acquire_all(wait_limit limit) {
    using std::chrono::milliseconds;
    static constexpr milliseconds WINDOW{500};
    const uint32_t wait_ms = limit.ms();
    const steady::time_point end = steady::now() + milliseconds(wait_ms);
    reported_wait report(limit, ALL_LOCKS);
    std::string holder;
    do {
        auto left = std::chrono::duration_cast<milliseconds>(end - steady::now()).count();
        auto left_ms = static_cast<uint32_t>(std::max<int64_t>(left, 0));
        std::shared_ptr<held_lock> all =
            acquire(ALL_LOCKS, lock_mode::exclusive, limit.within(left_ms), {});
        end_of_earlier others(cluster_.get(), static_cast<const etcd_lock &>(*all).entry(),
                              &report);
        if (others.wait(std::min(end, steady::now() + WINDOW))) return all;
        holder = others.holder();
    } while (steady::now() < end);
    throw host_error(failure::lock, "all locks of the registry were not granted within " +
                                        std::to_string(wait_ms) + " ms: one is held by " + holder);
}

// An entry waits if an earlier one conflicts with it.
std::vector<lock_use> etcd_locks::users(const std::vector<std::string> &names) {
    (void)names;
    wire::TxnRequest request;
    add_range(request.mutable_success(), cluster_->keys().all_locks());
    wire::TxnResponse response = cluster_->txn(request);
    const auto &found = range_in(response, 0).kvs();
    queue entries(found.begin(), found.end());
    sort_by_creation(&entries);
    std::vector<lock_use> all;
    for (const wire::KeyValue &entry : entries) {
        lock_use use;
        if (!cluster_->keys().lock_of_entry(entry.key(), &use.name, &use.mode)) continue;
        use.holder = entry.value();
        use.waits = std::any_of(all.begin(), all.end(), [&](const lock_use &before) {
            bool both_share = before.mode == lock_mode::shared && use.mode == lock_mode::shared;
            bool meet =
                before.name == use.name || before.name == ALL_LOCKS || use.name == ALL_LOCKS;
            return meet && !both_share;
        });
        all.push_back(std::move(use));
    }
    return all;
}

}  // namespace keyview::host
