// The order in which a batch of changes is written: that of the rows, parents first, so that pages are
// filled one by one. And which changes are children of which, so that the row of a new key is written
// once, with the number of children that the batch puts below it.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "host/registry/store.h"

namespace keyview::host {

class row_order {
  public:
    explicit row_order(size_t changes);

    // Takes the next change; all of them before sort(). A batch with a removal keeps its own order, and
    // nothing is known of its keys.
    void add(const change_view &next);
    void sort(const change_source &changes);

    // The number of the change that is the n-th to be carried out.
    size_t operator[](size_t n) const { return order_.empty() ? n : order_[n]; }

    // By the number of a change: how many others put children of its key, and the one that puts its
    // parent, or NONE. Known if the changes came in tree order, a key perhaps twice in a row.
    static constexpr uint32_t NONE = UINT32_MAX;
    uint32_t children(size_t change) const { return knows_parents() ? children_[change] : 0; }
    uint32_t parent(size_t change) const { return knows_parents() ? parents_[change] : NONE; }

    // The room that the rows of the batch need in the file.
    size_t room() const { return room_; }

  private:
    struct ancestor {
        uint32_t change;
        std::string_view path;
        std::string_view latest;  // element below it
    };
    uint32_t find_parent(std::string_view path);
    bool knows_parents() const { return in_tree_order_ && !order_.empty(); }

    std::vector<uint32_t> order_, children_, parents_;
    std::vector<std::vector<uint32_t>> by_depth_;  // often each in order already
    std::vector<ancestor> above_;                  // none, those of the latest change, and that one
    bool removes_ = false, in_tree_order_ = true;
    size_t room_ = 0;
};

}  // namespace keyview::host
