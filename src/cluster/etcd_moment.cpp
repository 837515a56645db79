// Reads of the tree and the moments that they are as of.
#include "cluster/etcd_moment.h"

#include <thread>
#include <utility>

#include "cluster/journal.pb.h"
#include "model/path.h"

namespace keyview::host {

// ---- Half-applied change sets -------------------------------------------------------------------

static constexpr std::chrono::milliseconds POLL_PAUSE{10};

std::string half_applied_text(const std::string &marker) {
    journal::Marker state;
    if (!state.ParseFromString(marker)) return "the marker of a change set is damaged";
    const std::string place = state.pieces() == 0
                                  ? "before its first piece"
                                  : "half-way, after " + std::to_string(state.next()) + " of " +
                                        std::to_string(state.pieces()) + " pieces";
    return "a change set stopped " + place + ", when carried out by " + state.by() +
           ": finish it with 'keyviewctl recover --resume' or undo it with "
           "'keyviewctl recover --undo'";
}

void half_applied_wait::wait(const std::string &marker) {
    steady::time_point now = steady::now();
    if (marker != seen_) {
        seen_ = marker;
        end_ = now + cluster_->calls().settings().answer_wait;
    }
    if (now >= end_) throw host_error(failure::content, half_applied_text(marker));
    std::this_thread::sleep_for(POLL_PAUSE);
}

// ---- Moments ------------------------------------------------------------------------------------

void read_part(session *cluster, tree_part *part, int64_t revision) {
    half_applied_wait pending(cluster);
    for (;;) {
        wire::TxnRequest request;
        part->ask(cluster->deepest(), revision, request.mutable_success());
        wire::TxnResponse response = cluster->txn(request);
        bool whole = part->take(&response, 0);
        cluster->note_tree(part->deepest(), part->tree_changes());
        if (!whole) continue;
        if (revision != 0 || part->marker().empty()) return;
        pending.wait(part->marker());
    }
}

bool can_be_key(std::string_view path) {
    return path_fault(path) == nullptr && elements_of(path) <= MOST_ELEMENTS;
}

namespace {

// Reads at the revision of its first answer.
class etcd_moment final : public moment {
  public:
    etcd_moment(std::shared_ptr<session> cluster, tree_part part)
        : cluster_(std::move(cluster)), part_(std::move(part)) {}

    revision current() override {
        if (part_.revision() == 0) read_part(cluster_.get(), &part_, 0);
        return {static_cast<uint64_t>(part_.tree_revision()), 0};
    }

    bool read(std::string_view path, std::string *value) override {
        return can_be_key(path) && part_with(path, reach::key_alone).read(path, value);
    }

    bool copy(std::string_view path, reach which, snapshot *out) override {
        return can_be_key(path) && part_with(path, which).copy(path, which, out);
    }

  private:
    const tree_part &part_with(std::string_view path, reach which) {
        const int64_t at = part_.revision();
        const bool covered = part_.covers(path, which);
        if (!covered) part_ = tree_part(cluster_->keys(), std::string(path), which);
        if (!covered || at == 0) read_part(cluster_.get(), &part_, at);
        return part_;
    }

    std::shared_ptr<session> cluster_;
    tree_part part_;  // what was read last
};

}  // namespace

std::unique_ptr<moment> moment_of(std::shared_ptr<session> cluster, tree_part part) {
    return std::make_unique<etcd_moment>(std::move(cluster), std::move(part));
}

}  // namespace keyview::host
