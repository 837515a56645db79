// Reads and sets in the cluster.
#include "cluster/etcd_store.h"

#include <algorithm>
#include <utility>

#include "cluster/change_set.h"
#include "cluster/etcd_history.h"
#include "cluster/etcd_locks.h"
#include "cluster/etcd_moment.h"
#include "cluster/faults.h"
#include "model/path.h"

namespace keyview::host {

std::unique_ptr<moment> etcd_store::now(std::string_view part, reach depth) {
    const std::string_view read = can_be_key(part) ? part : std::string_view();
    return moment_of(cluster_, tree_part(cluster_->keys(), std::string(read), depth));
}

// ---- Following ----------------------------------------------------------------------------------

// Nothing if it is not a change below top.
static std::optional<tree_change> change_in(const layout &keys, const wire::Event &event,
                                            std::string_view top) {
    std::optional<std::string_view> elements = keys.elements(event.kv().key());
    if (!elements) return std::nullopt;
    tree_change out;
    out.path = path_of_elements(*elements);
    if (!path_within(out.path, top)) return std::nullopt;
    out.revision = static_cast<uint64_t>(event.kv().mod_revision());
    if (event.has_prev_kv()) out.before = event.prev_kv().value();
    if (event.type() == wire::Event::PUT) out.after = event.kv().value();
    if (out.before == out.after) return std::nullopt;
    return out;
}

std::optional<change_batch> etcd_store::changes_since(std::string_view path, uint64_t since,
                                                      std::chrono::milliseconds wait) {
    const layout &keys = cluster_->keys();
    key_range all = keys.all_keys();
    wire::WatchCreateRequest what;
    what.set_key(all.begin);
    what.set_range_end(all.end);
    what.set_prev_kv(true);
    change_batch out = {{}, since};
    auto take = [&](const wire::WatchResponse &response) {
        for (const wire::Event &event : response.events()) {
            out.up_to = std::max(out.up_to, static_cast<uint64_t>(event.kv().mod_revision()));
            if (std::optional<tree_change> one = change_in(keys, event, path))
                out.changes.push_back(std::move(*one));
        }
        return out.changes.empty();
    };
    const steady::time_point end = steady::now() + wait;
    auto follow = [&](int64_t first) {
        what.set_start_revision(first);
        try {
            cluster_->calls().follow(what, end, take);
        } catch (const etcd_error &error) {
            if (error.kind != failure::registry) throw;
        }
    };
    try {
        follow(static_cast<int64_t>(since) + 1);
    } catch (const etcd_error &error) {
        // Locks move the revision, too: the compacted revisions need not contain a change of the tree.
        if (error.reason != etcd_reason::compacted) throw;
        tree_part oldest(keys, "", reach::key_alone);
        read_part(cluster_.get(), &oldest, error.revision);
        // The pieces of a change set move the revision of its marker alone.
        const bool in_pieces = !oldest.marker().empty();
        if (in_pieces || oldest.tree_revision() > static_cast<int64_t>(since)) throw;
        follow(error.revision + 1);
    }
    // A silent member may be dead or behind: a call that requires an answer moves on from it.
    if (out.changes.empty()) (void)tree_state(&cluster_->calls(), keys);
    return out;
}

// ---- Opening ------------------------------------------------------------------------------------

void etcd_store::open(bool create) {
    const layout &keys = cluster_->keys();
    if (create) {
        wire::TxnRequest request;
        require_created(&request, {keys.tree(), ""}, 0);
        add_put(request.mutable_success(), keys.tree(),
                tree_facts{0, cluster_->unique_name()}.text());
        (void)cluster_->txn(request);  // it fails if the registry exists
    }
    const tree_part state = tree_state(&cluster_->calls(), keys);
    cluster_->note_tree(state.deepest(), state.tree_changes());
}

// ---- Setting ------------------------------------------------------------------------------------

namespace {

// Sets one value under conditions. Sending it twice has the effect of sending it once.
class set_request {
  public:
    set_request(const layout &keys, std::string_view path, std::string_view value)
        : path_(path), key_(keys.key(path)), value_(value) {
        require_there(&request_, key_);
        if (value_.size() <= MOST_COMPARED) {
            require_value(&request_, key_, value_, wire::Compare::NOT_EQUAL);
        }
        require_created(&request_, {keys.marker(), ""}, 0);
        add_put(request_.mutable_success(), key_, value_);
        request_.mutable_success(0)->mutable_request_put()->set_prev_kv(true);
        add_touch(request_.mutable_success(), keys.tree());
        add_range(request_.mutable_failure(), {key_, ""});
        add_range(request_.mutable_failure(), {keys.marker(), ""});
    }

    // Under a lock, whose entry the set changes, so that a late try fails on the changed entry.
    void fence(queue_entry *entry) {
        lock_ = entry;
        require_created(&request_, {entry->key(), ""}, entry->created());
        require_changed(&request_, entry->key(), entry->changed());
        add_touch(request_.mutable_success(), entry->key());
        add_range(request_.mutable_failure(), {entry->key(), ""});
    }

    // With the entry in the history: only over the value before.
    void record(session *cluster, const std::string &before) {
        change_recorder changes(MOST_COMPARED);
        if (before.size() <= MOST_COMPARED) {
            require_value(&request_, key_, before);
            changes.note(path_, before, value_);
        } else {
            changes.note_unknown(path_);
        }
        add_history(request_.mutable_success(), cluster, changes.entry(0));
    }

    // What the key has now, after a try that failed.
    const std::optional<std::string> &stored() const { return stored_; }

    // Without a lock: only over the value that was read.
    void expect(int64_t revision) {
        require_changed(&request_, key_, revision);
        expected_ = revision;
    }

    // Whether the key exists and has the value now; nothing if the set must be tried again.
    std::optional<bool> run(session *cluster, half_applied_wait *pending, std::string *replaced) {
        bool repeated = false;
        wire::TxnResponse response = send(cluster, &repeated);
        if (response.succeeded()) {
            if (replaced != nullptr)
                *replaced = response.responses(0).response_put().prev_kv().value();
            if (lock_ != nullptr) lock_->note_changed(response.header().revision());
            return true;
        }
        const wire::RangeResponse &stored = range_in(response, 0);
        if (lock_ != nullptr) {
            const wire::RangeResponse &entry = range_in(response, 2);
            if (!lock_->is_in(entry)) throw lock_lost(path_);
            bool by_us = entry.kvs(0).mod_revision() != lock_->changed();
            lock_->note_changed(entry.kvs(0).mod_revision());
            if (by_us) return true;  // by an earlier try
        }
        if (stored.kvs_size() == 0) return false;
        stored_ = stored.kvs(0).value();
        if (repeated && expected_ > 0 && stored.kvs(0).mod_revision() != expected_) {
            // An earlier try is the first change since then, or was not carried out.
            auto first =
                cluster->calls().next_change(key_, expected_, cluster->calls().answer_end());
            if (first && first->type() == wire::Event::PUT && first->kv().value() == value_)
                return true;
        }
        if (range_in(response, 1).kvs_size() > 0) {
            pending->wait(value_in(response, 1));
            return std::nullopt;
        }
        if (stored.kvs(0).value() != value_) return std::nullopt;
        if (replaced != nullptr) *replaced = value_;
        return true;
    }

  private:
    // A request has room for one copy of a large value: such a value is always written.
    static constexpr size_t MOST_COMPARED = size_t{64} << 10;

    wire::TxnResponse send(session *cluster, bool *repeated) {
        try {
            return cluster->txn(request_, repeated);
        } catch (const etcd_error &) {
            if (lock_ != nullptr && *repeated) lock_->note_doubt();
            throw;
        }
    }

    std::string_view path_;
    std::string key_;
    std::string value_;
    wire::TxnRequest request_;
    std::optional<std::string> stored_;
    queue_entry *lock_ = nullptr;
    int64_t expected_ = 0;  // the revision of the key; 0 under a lock
};

}  // namespace

bool etcd_store::set(std::string_view path, std::string_view value, const held_lock *fence,
                     std::string *replaced) {
    if (!can_be_key(path)) return false;
    check_value(path, value);
    const auto *lock = dynamic_cast<const etcd_lock *>(fence);
    if (fence != nullptr && lock == nullptr && !fence->still_held()) throw lock_lost(path);
    if (lock != nullptr && lock->entry()->in_doubt()) {
        throw host_error(failure::lock, "cannot set " + std::string(path) +
                                            ": an earlier set under this lock got no answer; take "
                                            "the lock anew");
    }
    half_applied_wait pending(cluster_.get());
    const bool fenced = lock != nullptr && !faults.set_unfenced;
    const bool recorded = history_limit() > 0;
    std::optional<std::string> before;
    if (replaced != nullptr) before = *replaced;
    for (;;) {
        set_request request(cluster_->keys(), path, value);
        if (fenced) request.fence(lock->entry());
        if (!fenced || (recorded && !before)) {
            tree_part there(cluster_->keys(), std::string(path), reach::key_alone);
            read_part(cluster_.get(), &there, 0);
            if (there.rows().front().empty()) return false;
            before = there.rows().front().Get(0).value();
            if (!fenced) request.expect(there.rows().front().Get(0).mod_revision());
        }
        if (recorded) request.record(cluster_.get(), *before);
        std::optional<bool> done = request.run(cluster_.get(), &pending, replaced);
        if (done) return *done;
        before = request.stored();
    }
}

void etcd_store::history(uint64_t since, const history_sink &sink) {
    read_history(cluster_.get(), since, sink);
}

// ---- Changing -----------------------------------------------------------------------------------

change_counts etcd_store::apply(const change_source &changes, const apply_terms &terms) {
    check_changes(changes);
    for (size_t n = 0; n < changes.size; ++n) {
        const change_view one = changes.at(n);
        if (one.what == change::kind::remove || elements_of(one.path) <= MOST_ELEMENTS) continue;
        throw host_error(failure::usage, "'" + std::string(one.path) +
                                             "' is too long: a path in a cluster has " +
                                             std::to_string(MOST_ELEMENTS) + " elements at most");
    }
    return apply_changes(cluster_.get(), changes, terms);
}

bool etcd_store::finish_apply(finish how) {
    return finish_half_applied(cluster_.get(), how);
}

}  // namespace keyview::host
