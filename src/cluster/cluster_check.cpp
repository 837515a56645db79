// Checks all keys of the tree in a cluster, as of one moment.
#include <set>

#include "cluster/cluster.h"
#include "cluster/cluster_settings.h"
#include "cluster/half_applied.h"
#include "cluster/session.h"
#include "cluster/tree_part.h"

namespace keyview::host {

namespace {

constexpr int64_t AT_ONCE = 5000;

class walk {
  public:
    walk(session *cluster, const damage_sink &damage, const row_sink &sink)
        : cluster_(cluster), damage_(damage), sink_(sink) {}

    // A parent is read before its children: it has fewer elements.
    uint64_t run() {
        key_range rest = cluster_->keys().all_keys();
        int64_t revision = 0;
        for (bool more = true; more;) {
            wire::TxnRequest request;
            add_range(request.mutable_success(), rest, revision);
            request.mutable_success(0)->mutable_request_range()->set_limit(AT_ONCE);
            wire::TxnResponse response = cluster_->txn(request, cluster_->calls().answer_end());
            if (revision == 0) revision = response.header().revision();
            const wire::RangeResponse &found = response.responses(0).response_range();
            for (const wire::KeyValue &row : found.kvs())
                check_row(row);
            more = found.more() && found.kvs_size() > 0;
            if (more) rest.begin = found.kvs(found.kvs_size() - 1).key() + '\0';
        }
        return keys_;
    }

  private:
    void check_row(const wire::KeyValue &row) {
        ++keys_;
        auto elements = cluster_->keys().elements(row.key());
        if (!elements) return damage_(row.key(), "is not the key of any path");
        std::string path = path_of_elements(*elements);
        std::string_view parent = parent_path(path);
        if (!parent.empty() && known_.count(std::string(parent)) == 0) {
            damage_(path, "has no parent");
        }
        sink_(path, row.value());
        known_.insert(std::move(path));
    }

    session *cluster_;
    const damage_sink &damage_;
    const row_sink &sink_;
    std::set<std::string> known_;
    uint64_t keys_ = 0;
};

}  // namespace

check_counts check_cluster(const std::string &url, const damage_sink &damage,
                           const row_sink &sink) {
    session cluster(settings_of(url));
    tree_part state = tree_state(&cluster.calls(), cluster.keys());
    if (!state.marker().empty()) damage(cluster.keys().marker(), half_applied_text(state.marker()));
    check_counts counts;
    counts.keys = walk(&cluster, damage, sink).run();
    return counts;
}

}  // namespace keyview::host
