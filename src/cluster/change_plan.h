// The keys that a change set changes in the tree of one revision.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "cluster/session.h"
#include "cluster/tree_part.h"
#include "host/registry/history.h"
#include "host/registry/store.h"

namespace keyview::host {

class change_plan {
  public:
    // Reads the keys that the changes concern, as of a revision or, with 0, the present one once no
    // change set is half applied.
    change_plan(session *cluster, const change_source &changes, int64_t revision = 0);

    struct key_change {
        std::string key;  // of the cluster
        std::optional<std::string> before;
        std::optional<std::string> after;
    };

    const change_counts &counts() const { return counts_; }
    void record(change_recorder *out) const;
    std::vector<key_change> key_changes() const;

    int64_t tree_revision() const { return state_.tree_revision(); }
    const std::string &tree_before() const { return state_.tree_value(); }
    std::string tree_after(const std::string &writer) const;

  private:
    struct key_state {
        std::optional<std::string> before;
        std::optional<std::string> after;
    };

    void read_keys(const std::set<std::string> &paths);
    void read_below(const std::string &path);
    void put(const change_view &one);
    void remove(const std::string &path);

    session *cluster_;
    tree_part state_;
    std::map<std::string, key_state> tree_;  // the keys that the changes concern, by path
    change_counts counts_;
};

}  // namespace keyview::host
