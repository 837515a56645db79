// Finds keys in the lists of each depth, and copies them into snapshots.
#include "cluster/tree_part.h"

#include <algorithm>

namespace keyview::host {

// ---- Asking -------------------------------------------------------------------------------------

void tree_part::ask(uint32_t deepest, int64_t revision, wire_ops *ops) {
    asked_revision_ = revision;
    add_range(ops, {keys_->tree(), ""}, revision);
    add_range(ops, {keys_->marker(), ""}, revision);
    if (path_.empty()) return;
    add_range(ops, {keys_->key(path_), ""}, revision);
    asked_depths_ = 1;
    uint32_t own = elements_of(path_);
    uint32_t last = which_ == reach::key_alone  ? own
                    : which_ == reach::children ? own + 1
                                                : deepest;
    for (uint32_t depth = own + 1; depth <= std::min(last, MOST_ELEMENTS); ++depth, ++asked_depths_)
        add_range(ops, keys_->below(path_, depth), revision);
}

bool tree_part::take(wire::TxnResponse *response, int first_op) {
    auto answer = [&](int n) {
        return response->mutable_responses(first_op + n)->mutable_response_range()->mutable_kvs();
    };
    if (answer(0)->empty()) {
        throw host_error(
            failure::not_found,
            "there is no registry in the cluster below the prefix of the URL: the first "
            "'keyviewctl apply' creates it");
    }
    revision_ = asked_revision_ != 0 ? asked_revision_ : response->header().revision();
    tree_revision_ = answer(0)->Get(0).mod_revision();
    tree_value_ = answer(0)->Get(0).value();
    tree_changes_ = static_cast<uint64_t>(answer(0)->Get(0).version());
    deepest_ = tree_facts::parse(tree_value_).deepest;
    marker_ = answer(1)->empty() ? "" : answer(1)->Get(0).value();
    rows_.clear();
    for (uint32_t n = 0; n < asked_depths_; ++n) {
        rows_.emplace_back();
        rows_.back().Swap(answer(2 + static_cast<int>(n)));
    }
    bool cut = !path_.empty() && which_ == reach::all_below &&
               elements_of(path_) + asked_depths_ <= deepest_;
    return !cut;
}

tree_part tree_state(connection *calls, const layout &keys) {
    tree_part state(keys, "", reach::key_alone);
    wire::TxnRequest request;
    state.ask(0, 0, request.mutable_success());
    wire::TxnResponse response = calls->txn(request, calls->answer_end());
    (void)state.take(&response, 0);
    return state;
}

// ---- Single keys --------------------------------------------------------------------------------

static bool key_before(const wire::KeyValue &row, const std::string &key) {
    return row.key() < key;
}

const wire::KeyValue *tree_part::find(std::string_view path) const {
    size_t depth = elements_of(path) - elements_of(path_);
    if (depth >= rows_.size()) return nullptr;
    const wire_rows &rows = rows_[depth];
    std::string key = keys_->key(path);
    auto at = std::lower_bound(rows.begin(), rows.end(), key, key_before);
    return at == rows.end() || at->key() != key ? nullptr : &*at;
}

bool tree_part::covers(std::string_view path, reach which) const {
    if (path_.empty() || !path_within(path, path_, which_)) return false;
    return which == reach::key_alone || which_ == reach::all_below ||
           (which_ == reach::children && which == reach::children && path == path_);
}

bool tree_part::read(std::string_view path, std::string *value) const {
    const wire::KeyValue *row = find(path);
    if (row != nullptr) *value = row->value();
    return row != nullptr;
}

// ---- Copies -------------------------------------------------------------------------------------

namespace {

// The keys of one depth below a path, and where the children of each begin in the next.
struct level {
    const wire_rows *rows;
    int first;
    int last;
    std::vector<uint32_t> children_before;  // of all keys up to this one; one more than keys

    uint32_t children(int row) const {
        auto n = static_cast<size_t>(row - first);
        return children_before.empty() ? 0 : children_before[n + 1] - children_before[n];
    }
};

host_error damaged(const std::string &key, size_t head) {
    std::string_view elements = std::string_view(key).substr(std::min(head, key.size()));
    while (!elements.empty() && elements.back() == SEPARATOR)
        elements.remove_suffix(1);
    return {failure::content, "the tree in the cluster is damaged at '" +
                                  path_of_elements(elements) +
                                  "': \"keyviewctl lint\" lists the remedies"};
}

class copier {
  public:
    copier(std::vector<level> levels, size_t head, snapshot *out)
        : levels_(std::move(levels)), head_(head), out_(out) {
        for (size_t depth = 0; depth + 1 < levels_.size(); ++depth)
            count_children(&levels_[depth], levels_[depth + 1]);
    }

    void copy() {
        const level &top = levels_.front();
        out_->add_top(top.rows->Get(top.first).value(), top.children(top.first));
        if (top.children(top.first) > 0) copy_list(0, top.first);
    }

  private:
    // The elements of a key, with the separator behind the last one.
    std::string_view elements(const std::string &key) const {
        return std::string_view(key).substr(head_);
    }

    // Every key of the next depth must follow its parent.
    void count_children(level *parents, const level &keys) const {
        parents->children_before.assign(static_cast<size_t>(parents->last - parents->first) + 1, 0);
        int parent = parents->first;
        uint32_t passed = 0;
        for (int key = keys.first; key < keys.last; ++key, ++passed) {
            std::string_view child = elements(keys.rows->Get(key).key());
            for (;; ++parent) {
                if (parent == parents->last) throw damaged(keys.rows->Get(key).key(), head_);
                std::string_view above = elements(parents->rows->Get(parent).key());
                if (child.substr(0, above.size()) == above) break;
                parents->children_before[static_cast<size_t>(parent - parents->first) + 1] = passed;
            }
        }
        for (; parent < parents->last; ++parent)
            parents->children_before[static_cast<size_t>(parent - parents->first) + 1] = passed;
    }

    void copy_list(size_t depth, int row) {
        const level &above = levels_[depth];
        const level &below = levels_[depth + 1];
        const std::string &key = above.rows->Get(row).key();
        std::string_view list = elements(key);
        list.remove_suffix(1);
        int first = below.first +
                    static_cast<int>(above.children_before[static_cast<size_t>(row - above.first)]);
        int last = first + static_cast<int>(above.children(row));
        if (!out_->begin_list(list, SEPARATOR)) throw damaged(key, head_);
        for (int child = first; child < last; ++child) {
            const wire::KeyValue &one = below.rows->Get(child);
            std::string_view name = elements(one.key()).substr(list.size() + 1);
            bool closed = !name.empty() && name.back() == SEPARATOR;
            if (closed) name.remove_suffix(1);
            bool sound = closed && name.find('.') == name.npos && path_fault(name) == nullptr;
            if (!sound || !out_->add(name, one.value(), below.children(child)))
                throw damaged(one.key(), head_);
        }
        for (int child = first; child < last; ++child) {
            if (below.children(child) > 0) copy_list(depth + 1, child);
        }
    }

    std::vector<level> levels_;
    size_t head_;
    snapshot *out_;
};

}  // namespace

bool tree_part::copy(std::string_view path, reach which, snapshot *out) const {
    if (find(path) == nullptr) return false;
    uint32_t own = elements_of(path);
    size_t skipped = own - elements_of(path_);
    size_t wanted = which == reach::key_alone ? 1 : which == reach::children ? 2 : rows_.size();
    std::vector<level> levels;
    for (size_t n = 0; n < wanted && skipped + n < rows_.size(); ++n) {
        const wire_rows &rows = rows_[skipped + n];
        key_range range{keys_->key(path), ""};
        range.end = range.begin + '\0';
        if (n > 0) range = keys_->below(path, own + static_cast<uint32_t>(n));
        auto first = std::lower_bound(rows.begin(), rows.end(), range.begin, key_before);
        auto last = std::lower_bound(first, rows.end(), range.end, key_before);
        levels.push_back({&rows,
                          static_cast<int>(first - rows.begin()),
                          static_cast<int>(last - rows.begin()),
                          {}});
    }
    size_t head = keys_->key(path).size() - path.size() - 1;
    copier(std::move(levels), head, out).copy();
    if (!out->complete()) throw damaged(keys_->key(path), head);
    return true;
}

}  // namespace keyview::host
