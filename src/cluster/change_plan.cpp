// Applies changes in memory, to the keys that were read.
#include "cluster/change_plan.h"

#include <algorithm>

#include "cluster/etcd_moment.h"
#include "model/path.h"

namespace keyview::host {

change_plan::change_plan(session *cluster, const change_source &changes, int64_t revision)
    : cluster_(cluster), state_(cluster->keys(), "", reach::key_alone) {
    read_part(cluster_, &state_, revision);
    std::set<std::string> single;
    for (size_t n = 0; n < changes.size; ++n) {
        const change_view one = changes.at(n);
        if (one.what == change::kind::remove) {
            read_below(std::string(one.path));
        } else {
            for (std::string_view path = one.path; !path.empty(); path = parent_path(path))
                single.emplace(path);
        }
    }
    read_keys(single);
    for (size_t n = 0; n < changes.size; ++n) {
        const change_view one = changes.at(n);
        if (one.what == change::kind::remove) {
            remove(std::string(one.path));
        } else {
            put(one);
        }
    }
}

void change_plan::read_keys(const std::set<std::string> &paths) {
    static constexpr int AT_ONCE = 100;
    for (auto next = paths.begin(); next != paths.end();) {
        wire::TxnRequest request;
        auto first = next;
        for (; next != paths.end() && request.success_size() < AT_ONCE; ++next)
            add_range(request.mutable_success(), {cluster_->keys().key(*next), ""},
                      state_.revision());
        wire::TxnResponse response = cluster_->txn(request);
        for (int n = 0; first != next; ++first, ++n) {
            const wire::RangeResponse &found = range_in(response, n);
            if (found.kvs_size() == 0) continue;
            tree_[*first] = {found.kvs(0).value(), found.kvs(0).value()};
        }
    }
}

void change_plan::read_below(const std::string &path) {
    if (path_fault(path.c_str()) != nullptr || elements_of(path) > MOST_ELEMENTS) return;
    tree_part below(cluster_->keys(), path, reach::all_below);
    read_part(cluster_, &below, state_.revision());
    for (const wire_rows &rows : below.rows()) {
        for (const wire::KeyValue &row : rows) {
            auto elements = cluster_->keys().elements(row.key());
            if (elements) tree_[path_of_elements(*elements)] = {row.value(), row.value()};
        }
    }
}

void change_plan::put(const change_view &one) {
    for (size_t end = one.path.find('.'); end != one.path.npos; end = one.path.find('.', end + 1)) {
        key_state &parent = tree_[std::string(one.path.substr(0, end))];
        if (!parent.after) ++counts_.created;
        if (!parent.after) parent.after = "";
    }
    key_state &key = tree_[std::string(one.path)];
    if (!key.after) ++counts_.created;
    if (key.after && *key.after != one.value) ++counts_.replaced;
    key.after = one.value;
}

void change_plan::remove(const std::string &path) {
    for (auto at = tree_.lower_bound(path); at != tree_.end(); ++at) {
        auto &[below, key] = *at;
        if (below.compare(0, path.size(), path) != 0) break;
        if (!path_within(below, path)) continue;  // "a!" is between "a" and "a.b"
        if (key.after) ++counts_.removed;
        key.after.reset();
    }
}

std::vector<change_plan::key_change> change_plan::key_changes() const {
    std::vector<key_change> changes;
    for (const auto &[path, key] : tree_) {
        if (key.before == key.after) continue;
        changes.push_back({cluster_->keys().key(path), key.before, key.after});
    }
    return changes;
}

void change_plan::record(change_recorder *out) const {
    for (const auto &[path, key] : tree_)
        if (key.before != key.after) out->note(path, key.before, key.after);
}

std::string change_plan::tree_after(const std::string &writer) const {
    tree_facts facts = tree_facts::parse(state_.tree_value());
    for (const auto &[path, key] : tree_) {
        if (key.after) facts.deepest = std::max(facts.deepest, elements_of(path));
    }
    facts.writer = writer;
    return facts.text();
}

}  // namespace keyview::host
