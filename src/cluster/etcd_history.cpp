// Entries of the history in the cluster.
#include "cluster/etcd_history.h"

#include <algorithm>

namespace keyview::host {

// Few entries take more, and the limit is that of all of them.
static constexpr uint64_t USUAL_ENTRY = 256;

void add_history(wire_ops *ops, session *cluster, const std::string &entry) {
    if (entry.empty()) return;
    const layout &keys = cluster->keys();
    const uint64_t number = cluster->tree_changes();
    const uint64_t most = std::max<uint64_t>(history_limit() / USUAL_ENTRY, 1);
    add_put(ops, keys.history_entry(number, cluster->unique_name()), entry);
    if (number > most) add_delete(ops, keys.history_before(number - most));
}

void read_history(session *cluster, uint64_t since, const history_sink &sink) {
    static constexpr int64_t ENTRIES_AT_ONCE = 100;
    history_entry entry;
    for (int64_t latest = 0;;) {
        wire::TxnRequest request;
        add_range(request.mutable_success(), cluster->keys().history());
        wire::RangeRequest *range = request.mutable_success(0)->mutable_request_range();
        range->set_limit(ENTRIES_AT_ONCE);
        range->set_sort_order(wire::RangeRequest::DESCEND);
        range->set_sort_target(wire::RangeRequest::MOD);
        range->set_min_mod_revision(static_cast<int64_t>(since) + 1);
        range->set_max_mod_revision(latest);
        const wire::TxnResponse response = cluster->txn(request);
        const auto &found = range_in(response, 0).kvs();
        for (const wire::KeyValue &row : found) {
            entry.revision = static_cast<uint64_t>(row.mod_revision());
            if (!read_entry(row.value(), &entry)) {
                throw host_error(failure::content, "the history is damaged at revision " +
                                                       std::to_string(entry.revision) +
                                                       ": \"keyviewctl history --since " +
                                                       std::to_string(entry.revision) +
                                                       "\" shows what is later");
            }
            if (!sink(entry)) return;
        }
        if (found.size() < ENTRIES_AT_ONCE) return;
        latest = found.rbegin()->mod_revision() - 1;
    }
}

}  // namespace keyview::host
