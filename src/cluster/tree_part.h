// A part of the tree as of one transaction: the reads that it needs, and their results.
//
// The keys of each depth are read as a list of their own. So children have the order of their
// parents, and one pass over two lists counts the children of each.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cluster/connection.h"
#include "cluster/layout.h"
#include "host/registry/snapshot.h"
#include "model/path.h"

namespace keyview::host {

using wire_rows = google::protobuf::RepeatedPtrField<wire::KeyValue>;

class tree_part {
  public:
    // path is valid for a key, or empty to read only the state of the tree. keys must outlive the
    // part.
    tree_part(const layout &keys, std::string path, reach which)
        : keys_(&keys), path_(std::move(path)), which_(which) {}

    // Adds the reads to a transaction, for a tree of that depth, as of a revision; 0 for the present
    // one.
    void ask(uint32_t deepest, int64_t revision, wire_ops *ops);

    // Takes the results, which begin with that operation. False if the tree has become deeper: then
    // the part must be read again. Throws failure::not_found if there is no registry.
    [[nodiscard]] bool take(wire::TxnResponse *response, int first_op);

    uint32_t deepest() const { return deepest_; }
    uint64_t tree_changes() const { return tree_changes_; }   // of which there were so many
    int64_t revision() const { return revision_; }            // of the rows; 0 before take()
    int64_t tree_revision() const { return tree_revision_; }  // of the latest change of the tree
    const std::string &tree_value() const { return tree_value_; }

    // The marker of a change set that is under way; empty if there is none.
    const std::string &marker() const { return marker_; }

    bool covers(std::string_view path, reach which) const;

    // For keys that the part covers. False if there is no such key.
    bool read(std::string_view path, std::string *value) const;
    bool copy(std::string_view path, reach which, snapshot *out) const;

    const std::vector<wire_rows> &rows() const { return rows_; }

  private:
    const wire::KeyValue *find(std::string_view path) const;

    const layout *keys_;
    std::string path_;
    reach which_;
    uint32_t asked_depths_ = 0;
    int64_t asked_revision_ = 0;
    uint32_t deepest_ = 0;
    uint64_t tree_changes_ = 0;
    int64_t revision_ = 0;
    int64_t tree_revision_ = 0;
    std::string tree_value_;
    std::string marker_;
    std::vector<wire_rows> rows_;  // of the path itself, of its children, and so on
};

// Reads only the state of the tree. keys must outlive the result.
tree_part tree_state(connection *calls, const layout &keys);

}  // namespace keyview::host
