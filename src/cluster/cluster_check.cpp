// Checks all keys of the tree in a cluster, as of one moment.
#include <functional>
#include <set>

#include "cluster/cluster.h"
#include "cluster/cluster_settings.h"
#include "cluster/etcd_moment.h"
#include "model/roots.h"

namespace keyview::host {

static constexpr int64_t READ_AT_ONCE = 5000;

// Reads all keys in their order: a parent before its children, since it has fewer elements.
static void read_all(session *cluster, const std::function<void(const wire::KeyValue &)> &sink) {
    key_range rest = cluster->keys().all_keys();
    int64_t revision = 0;
    for (bool more = true; more;) {
        wire::TxnRequest request;
        add_range(request.mutable_success(), rest, revision);
        request.mutable_success(0)->mutable_request_range()->set_limit(READ_AT_ONCE);
        wire::TxnResponse response = cluster->txn(request);
        if (revision == 0) revision = response.header().revision();
        const wire::RangeResponse &found = range_in(response, 0);
        for (const wire::KeyValue &row : found.kvs())
            sink(row);
        more = found.more() && found.kvs_size() > 0;
        if (more) rest.begin = found.kvs(found.kvs_size() - 1).key() + '\0';
    }
}

check_counts check_cluster(const std::string &url, const damage_sink &damage,
                           const row_sink &sink) {
    session cluster(settings_of(url));
    tree_part state = tree_state(&cluster.calls(), cluster.keys());
    if (!state.marker().empty()) damage(cluster.keys().marker(), half_applied_text(state.marker()));
    check_counts counts;
    std::set<std::string, std::less<>> known;
    read_all(&cluster, [&](const wire::KeyValue &row) {
        auto elements = cluster.keys().elements(row.key());
        if (!elements) {
            ++counts.keys;
            return damage(row.key(), "is not the key of any path");
        }
        std::string path = path_of_elements(*elements);
        if (is_history(path)) return;
        ++counts.keys;
        std::string_view parent = parent_path(path);
        if (!parent.empty() && known.count(parent) == 0) damage(path, "has no parent");
        sink(path, row.value());
        known.insert(std::move(path));
    });
    return counts;
}

}  // namespace keyview::host
