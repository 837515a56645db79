// Transactions of a change set.
#include "cluster/change_set.h"

#include <algorithm>

#include "cluster/change_plan.h"
#include "cluster/etcd_history.h"
#include "cluster/etcd_locks.h"
#include "cluster/faults.h"
#include "cluster/journal.pb.h"
#include "host/support/process.h"

namespace keyview::host {

using journal::Marker;
using journal::Piece;
using key_change = change_plan::key_change;

// etcd takes 128 operations and 1.5 MiB in one request.
static constexpr int MOST_KEYS = 100;
static constexpr size_t MOST_BYTES = 1000000;
static constexpr size_t MOST_FENCES = 100;

// How long a change set is planned anew because other writers were faster.
static constexpr std::chrono::seconds LONGEST_RETRY{60};

// ---- The locks that must be held ----------------------------------------------------------------

static std::vector<const queue_entry *> entries_of(const apply_terms &terms) {
    std::vector<const queue_entry *> entries;
    for (const held_lock *fence : terms.fences) {
        if (!fence->still_held()) throw lock_lost({});
        const auto *lock = dynamic_cast<const etcd_lock *>(fence);
        if (lock != nullptr) entries.push_back(lock->entry());
    }
    return entries;
}

static void add_fences(wire::TxnRequest *request, const std::vector<const queue_entry *> &entries,
                       size_t first) {
    for (size_t n = first; n < std::min(entries.size(), first + MOST_FENCES); ++n) {
        require_created(request, {entries[n]->key(), ""}, entries[n]->created());
        add_range(request->mutable_failure(), {entries[n]->key(), ""});
    }
}

// ---- Pieces -------------------------------------------------------------------------------------

// The operations that bring the keys of a piece into the state after and before the change.
struct piece_pair {
    Piece to_do;
    Piece to_undo;
};

static bool has_room(const Piece &piece, const std::string &key,
                     const std::optional<std::string> &value) {
    return piece.operations_size() < MOST_KEYS &&
           piece.ByteSizeLong() + key.size() + (value ? value->size() : 0) <= MOST_BYTES;
}

static void add_key(Piece *piece, const std::string &key, const std::optional<std::string> &value) {
    if (value) {
        add_put(piece->mutable_operations(), key, *value);
    } else {
        add_delete(piece->mutable_operations(), {key, ""});
    }
}

static std::vector<piece_pair> pieces_of(const std::vector<key_change> &changes) {
    std::vector<piece_pair> pieces;
    for (const key_change &one : changes) {
        bool fits = !pieces.empty() && has_room(pieces.back().to_do, one.key, one.after) &&
                    has_room(pieces.back().to_undo, one.key, one.before);
        if (!fits) pieces.emplace_back();
        add_key(&pieces.back().to_do, one.key, one.after);
        add_key(&pieces.back().to_undo, one.key, one.before);
    }
    return pieces;
}

// ---- A change set under its marker --------------------------------------------------------------

namespace {

class marked_run {
  public:
    marked_run(session *cluster, Marker marker) : cluster_(cluster), marker_(std::move(marker)) {}

    // Moves the marker to next and writes the keys of a piece.
    void step(uint32_t next, const Piece &piece) {
        Marker moved = marker_;
        moved.set_next(next);
        move(std::move(moved), piece.operations());
    }

    // Before there are pieces: writes a part of the journal. Others see that the marker moves.
    void prepare(const wire_ops &part) {
        Marker moved = marker_;
        moved.set_prepared(marker_.prepared() + 1);
        move(std::move(moved), part);
    }

    // Replaces the marker and carries out the operations, in one transaction.
    void move(Marker to, const wire_ops &operations) {
        faults.step();
        wire::TxnRequest request = of_marker();
        request.mutable_success()->MergeFrom(operations);
        add_put(request.mutable_success(), cluster_->keys().marker(), to.SerializeAsString());
        wire::TxnResponse response = cluster_->txn(request);
        bool moved_before = value_in(response, 0) == to.SerializeAsString();
        if (!response.succeeded() && !moved_before) throw taken_over();
        marker_ = std::move(to);
    }

    // With the entry in the history; "" for none.
    void end(const std::string &tree, const std::string &entry) {
        faults.step();
        wire::TxnRequest request = of_marker();
        add_delete(request.mutable_success(), {cluster_->keys().marker(), ""});
        add_delete(request.mutable_success(), cluster_->keys().journals());
        add_put(request.mutable_success(), cluster_->keys().tree(), tree);
        add_history(request.mutable_success(), cluster_, entry);
        add_range(request.mutable_failure(), {cluster_->keys().tree(), ""});
        wire::TxnResponse response = cluster_->txn(request);
        // While the marker exists, the key of the tree still has its value of before.
        bool ended_before = value_in(response, 0).empty() && value_in(response, 1) == tree;
        if (!response.succeeded() && !ended_before) throw taken_over();
    }

    // Lets others go on, if the cluster takes it; else they find a change set that stopped half-way.
    void give_up(const std::string &tree) noexcept {
        try {
            end(tree, "");
        } catch (const std::exception &) {
            return;
        }
    }

    // Reads a piece of the journal, which goes with the marker.
    Piece piece(uint32_t n, bool undo) {
        wire::TxnRequest request = of_marker();
        add_range(request.mutable_success(), {cluster_->keys().journal(marker_.id(), n, undo), ""});
        wire::TxnResponse response = cluster_->txn(request);
        if (!response.succeeded()) throw taken_over();
        Piece found;
        if (range_in(response, 0).kvs_size() > 0 && found.ParseFromString(value_in(response, 0)))
            return found;
        throw host_error(failure::content,
                         "the journal of the change set is damaged: recover it in the other "
                         "direction; if that fails, too, delete the key " +
                             cluster_->keys().marker() +
                             " (etcdctl del) and restore a backup (\"keyviewctl restore FILE "
                             "--force\")");
    }

    // A writer of an earlier release left none.
    std::string entry() {
        wire::TxnRequest request = of_marker();
        add_range(request.mutable_success(), {cluster_->keys().journal_entry(marker_.id()), ""});
        wire::TxnResponse response = cluster_->txn(request);
        if (!response.succeeded()) throw taken_over();
        return value_in(response, 0);
    }

    static host_error taken_over() {
        return {failure::changed, "another program finished or undid the change set"};
    }

  private:
    wire::TxnRequest of_marker() const {
        wire::TxnRequest request;
        require_value(&request, cluster_->keys().marker(), marker_.SerializeAsString());
        add_range(request.mutable_failure(), {cluster_->keys().marker(), ""});
        return request;
    }

    session *cluster_;
    Marker marker_;
};

enum class outcome { done, tree_moved };

class change_set {
  public:
    change_set(session *cluster, std::string id, const change_plan &plan, const apply_terms &terms)
        : cluster_(cluster),
          plan_(plan),
          entries_(entries_of(terms)),
          id_(std::move(id)),
          pieces_(pieces_of(plan.key_changes())),
          entry_(entry_of(plan)) {}

    outcome run() { return is_large() ? run_in_pieces() : run_at_once(); }
    bool is_large() const { return pieces_.size() > 1 || entries_.size() > MOST_FENCES; }

    // Of a change set without changes: holds all others off, until the run ends or goes on with that of
    // another one. Nothing if the tree moved.
    std::optional<marked_run> hold() {
        Marker marker = first_marker();
        marker.set_tree(plan_.tree_before());
        return begin_run(marker);
    }

    // Under a marker of hold().
    void prepare(marked_run *run) const {
        write_journal([&](const wire_ops &part) { run->prepare(part); });
        run->move(first_marker(), {});
    }
    void carry_out(marked_run *run) const {
        for (uint32_t n = 0; n < pieces_.size(); ++n)
            run->step(n + 1, pieces_[n].to_do);
        run->end(plan_.tree_after(id_), entry_);
    }

  private:
    static std::string entry_of(const change_plan &plan) {
        if (history_limit() == 0) return "";
        change_recorder changes(LARGEST_ENTRY);
        plan.record(&changes);
        return changes.entry(0);
    }

    // The conditions under which the change set begins, and reads that show which one failed.
    wire::TxnRequest of_plan() const {
        wire::TxnRequest request;
        require_changed(&request, cluster_->keys().tree(), plan_.tree_revision());
        add_range(request.mutable_failure(), {cluster_->keys().tree(), ""});
        add_range(request.mutable_failure(), {cluster_->keys().marker(), ""});
        add_fences(&request, entries_, 0);
        return request;
    }

    // For a response to a request of of_plan.
    void require_fences(const wire::TxnResponse &response) const {
        for (int op = 2; op < response.responses_size(); ++op) {
            bool held = entries_[static_cast<size_t>(op) - 2]->is_in(range_in(response, op));
            if (!held) throw lock_lost({});
        }
    }

    // The first change of the tree since the plan, for a response that shows one; else an event
    // without a key. Each try requires the revision of the plan: an earlier one without an answer is
    // that change or was not carried out, whatever was changed since then.
    wire::Event first_change(const wire::TxnResponse &response) {
        const wire::RangeResponse &tree = range_in(response, 0);
        if (tree.kvs_size() == 0 || tree.kvs(0).mod_revision() == plan_.tree_revision()) return {};
        connection &calls = cluster_->calls();
        auto first =
            calls.next_change(cluster_->keys().tree(), plan_.tree_revision(), calls.answer_end());
        if (first) return *first;
        throw host_error(failure::registry,
                         "the cluster does not report whether it made the changes: read the "
                         "registry before you repeat them");
    }

    outcome run_at_once() {
        std::string tree = plan_.tree_after(id_);
        wire::TxnRequest request = of_plan();
        if (!pieces_.empty()) {
            request.mutable_success()->MergeFrom(pieces_.front().to_do.operations());
            add_put(request.mutable_success(), cluster_->keys().tree(), tree);
            add_history(request.mutable_success(), cluster_, entry_);
        }
        bool repeated = false;
        wire::TxnResponse response = cluster_->txn(request, &repeated);
        if (response.succeeded()) return outcome::done;
        if (tree_facts::parse(value_in(response, 0)).writer == id_) return outcome::done;
        const wire::Event first = repeated ? first_change(response) : wire::Event();
        if (first.has_kv() && tree_facts::parse(first.kv().value()).writer == id_)
            return outcome::done;
        require_fences(response);
        return outcome::tree_moved;
    }

    outcome run_in_pieces() {
        write_journal([&](const wire_ops &part) {
            wire::TxnRequest request;
            *request.mutable_success() = part;
            (void)cluster_->txn(request);  // without a condition
        });
        std::optional<marked_run> run = begin_run(first_marker());
        if (!run) {
            drop_journal();
            return outcome::tree_moved;
        }
        carry_out(&*run);
        return outcome::done;
    }

    // Of a change set that cannot begin any more, as the tree has moved.
    void drop_journal() {
        wire::TxnRequest request;
        add_delete(request.mutable_success(), journal());
        (void)cluster_->txn(request);
    }

    std::optional<marked_run> begin_run(const Marker &marker) {
        if (!begin(marker)) return std::nullopt;
        marked_run run(cluster_, marker);
        if (all_fences_hold()) return run;
        run.end(plan_.tree_before(), "");
        throw lock_lost({});
    }

    // Hands each key of the journal to a sender.
    template <typename sender>
    void write_journal(const sender &send) const {
        auto put = [&](const std::string &key, const std::string &value) {
            wire_ops part;
            add_put(&part, key, value);
            send(part);
        };
        for (uint32_t n = 0; n < pieces_.size(); ++n) {
            for (bool undo : {false, true}) {
                const Piece &piece = undo ? pieces_[n].to_undo : pieces_[n].to_do;
                put(cluster_->keys().journal(id_, n, undo), piece.SerializeAsString());
            }
        }
        if (!entry_.empty()) put(cluster_->keys().journal_entry(id_), entry_);
    }

    key_range journal() const {
        return beginning_with(cluster_->keys().journals().begin + id_ + "/");
    }

    Marker first_marker() const {
        Marker marker;
        marker.set_id(id_);
        marker.set_pieces(static_cast<uint32_t>(pieces_.size()));
        marker.set_by(this_process());
        marker.set_tree(plan_.tree_after(id_));
        marker.set_tree_before(plan_.tree_before());
        return marker;
    }

    // Creates the marker and deletes journals that other programs left without one.
    bool begin(const Marker &marker) {
        wire::TxnRequest request = of_plan();
        add_put(request.mutable_success(), cluster_->keys().marker(), marker.SerializeAsString());
        add_touch(request.mutable_success(), cluster_->keys().tree());
        const key_range all = cluster_->keys().journals(), mine = journal();
        add_delete(request.mutable_success(), {all.begin, mine.begin});
        add_delete(request.mutable_success(), {mine.end, all.end});
        bool repeated = false;
        wire::TxnResponse response = cluster_->txn(request, &repeated);
        if (response.succeeded() || value_in(response, 1) == marker.SerializeAsString())
            return true;
        const wire::Event first = repeated ? first_change(response) : wire::Event();
        if (first.has_kv() && began_at(first.kv().mod_revision(), marker)) {
            throw marked_run::taken_over();
        }
        require_fences(response);
        return false;
    }

    bool began_at(int64_t revision, const Marker &marker) {
        wire::TxnRequest request;
        add_range(request.mutable_success(), {cluster_->keys().marker(), ""}, revision);
        return value_in(cluster_->txn(request), 0) == marker.SerializeAsString();
    }

    // Checks the fences that did not fit into the transaction that began it.
    bool all_fences_hold() {
        for (size_t first = MOST_FENCES; first < entries_.size(); first += MOST_FENCES) {
            wire::TxnRequest request;
            add_fences(&request, entries_, first);
            if (!cluster_->txn(request).succeeded()) return false;
        }
        return true;
    }

    session *cluster_;
    const change_plan &plan_;
    std::vector<const queue_entry *> entries_;
    std::string id_;
    std::vector<piece_pair> pieces_;
    std::string entry_;  // of the history
};

}  // namespace

// Nothing if the tree moved before others could be held off.
static std::optional<change_counts> apply_held(session *cluster, const change_source &changes,
                                               const apply_terms &terms) {
    const std::string id = cluster->unique_name();
    const change_plan unchanged(cluster, {});
    std::optional<marked_run> run = change_set(cluster, id, unchanged, terms).hold();
    if (!run) return std::nullopt;
    std::optional<change_plan> plan;
    std::optional<change_set> set;
    try {
        const tree_part held = tree_state(&cluster->calls(), cluster->keys());
        plan.emplace(cluster, changes, held.revision());
        set.emplace(cluster, id, *plan, terms);
        set->prepare(&*run);
    } catch (...) {
        run->give_up(unchanged.tree_before());
        throw;
    }
    set->carry_out(&*run);
    return plan->counts();
}

change_counts apply_changes(session *cluster, const change_source &changes,
                            const apply_terms &terms) {
    steady::time_point end = steady::now() + LONGEST_RETRY;
    bool overtaken = false;  // and large
    do {
        if (overtaken) {
            const std::optional<change_counts> counts = apply_held(cluster, changes, terms);
            if (counts) return *counts;
            continue;
        }
        change_plan plan(cluster, changes);
        auto revision = static_cast<uint64_t>(plan.tree_revision());
        if (terms.revision != 0 && terms.revision != revision) {
            throw tree_changed(revision, terms.revision);
        }
        change_set set(cluster, cluster->unique_name(), plan, terms);
        if (set.run() == outcome::done) return plan.counts();
        overtaken = set.is_large() && terms.revision == 0;
    } while (steady::now() < end);
    throw host_error(failure::changed,
                     "other programs change the tree too often; nothing was written");
}

// ---- What stopped half-way ----------------------------------------------------------------------

bool finish_half_applied(session *cluster, finish how) {
    wire::TxnRequest request;
    add_range(request.mutable_success(), {cluster->keys().marker(), ""});
    wire::TxnResponse response = cluster->txn(request);
    if (range_in(response, 0).kvs_size() == 0) return false;
    Marker marker;
    if (!marker.ParseFromString(value_in(response, 0)) || marker.next() > marker.pieces()) {
        throw host_error(failure::content, "the marker of a change set is damaged");
    }
    marked_run run(cluster, marker);
    if (how == finish::resume) {
        for (uint32_t n = marker.next(); n < marker.pieces(); ++n)
            run.step(n + 1, run.piece(n, false));
        run.end(marker.tree(), marker.pieces() == 0 ? "" : run.entry());
    } else {
        for (uint32_t n = marker.next(); n-- > 0;)
            run.step(n, run.piece(n, true));
        run.end(marker.tree_before(), "");
    }
    return true;
}

}  // namespace keyview::host
