// The walk over the pages of a data file.
#include "host/embedded/pages/page_walk.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

namespace keyview::host {

// Smaller files are read with one call.
static constexpr size_t PAGES_AT_ONCE = 1024;

// One of the two trees, and what was found of it.
struct page_walk::tree {
    const tree_head &head;
    const char *name;
    bool numbers;  // the keys are numbers in the machine's byte order
    const row_visitor &visit;
    tree_head found = {};

    bool before(std::string_view a, std::string_view b) const {
        if (!numbers) return a < b;
        size_t first = 0;
        size_t second = 0;
        memcpy(&first, a.data(), std::min(a.size(), sizeof(first)));
        memcpy(&second, b.data(), std::min(b.size(), sizeof(second)));
        return first < second;
    }
};

// Where the keys of a page must lie: from first on, before behind. Absent ones do not bound.
struct page_walk::bounds {
    std::optional<std::string> first;
    std::optional<std::string> behind;
};

static std::string name_of_page(page_number number) {
    return "page " + std::to_string(number) + " of data.mdb";
}

static page_head head_of(std::string_view page) {
    page_head head;
    memcpy(&head, page.data(), sizeof(head));
    return head;
}

static size_t offset_of(std::string_view page, size_t index) {
    uint16_t offset = 0;
    memcpy(&offset, page.data() + sizeof(page_head) + index * sizeof(offset), sizeof(offset));
    return offset;
}

static node_head node_at(std::string_view page, size_t offset) {
    node_head found;
    memcpy(&found, page.data() + offset, sizeof(found));
    return found;
}

static std::string_view key_at(std::string_view page, size_t offset) {
    return page.substr(offset + sizeof(node_head), node_at(page, offset).key_size);
}

page_walk::page_walk(int fd, const meta &state, damage_sink damage)
    : fd_(fd), state_(state), damage_(std::move(damage)), claimed_(state.last_page + 1) {
    claimed_[0] = claimed_[1] = true;  // the metas
    if (pages() > PAGES_AT_ONCE) return;
    all_.resize(pages() * state_.page_size());
    if (!read_bytes(fd_, all_.data(), all_.size(), 0)) all_.clear();
}

void page_walk::report(page_number number, const std::string &reason) const {
    damage_(name_of_page(number), reason);
}

void page_walk::run(const row_visitor &visit) {
    row_visitor take = [this](std::string_view key, std::string_view bytes) {
        take_free(key, bytes);
    };
    tree keys = {state_.keys, "the tree of keys", false, visit};
    tree free_list = {state_.free_list, "the free list", true, take};
    walk_tree(&keys);
    walk_tree(&free_list);
    if (!whole_) return;  // the rest follows from the damaged page
    compare_counts(keys);
    compare_counts(free_list);
    report_lost();
}

void page_walk::walk_tree(tree *which) {
    page_number root = which->head.root;
    if (root == NO_PAGE) return;
    if (claim(root, 1, which->name)) {
        walk_page(which, root, {}, 1);
    } else {
        whole_ = false;
    }
}

// ---- Pages --------------------------------------------------------------------------------------

// Enters pages as used; false if one cannot be, or is used already.
bool page_walk::claim(page_number first, size_t count, const std::string &owner) {
    if (first > state_.last_page + 1 || count > state_.last_page + 1 - first) {
        damage_(owner, "names page " + std::to_string(first) + ", which is outside the file");
        return false;
    }
    auto from = claimed_.begin() + static_cast<std::ptrdiff_t>(first);
    auto to = from + static_cast<std::ptrdiff_t>(count);
    auto twice = std::find(from, to, true);
    if (twice != to) {
        auto number = static_cast<page_number>(twice - claimed_.begin());
        damage_(owner, "names page " + std::to_string(number) + ", which is in use already");
        return false;
    }
    std::fill(from, to, true);
    return true;
}

bool page_walk::load(page_number number, size_t count, buffer *own, std::string_view *out) {
    size_t at = number * state_.page_size();
    size_t size = count * state_.page_size();
    if (!all_.empty()) {
        *out = std::string_view(all_.data(), all_.size()).substr(at, size);
    } else {
        own->resize(size);
        if (!read_bytes(fd_, own->data(), size, at)) return report(number, "cannot be read"), false;
        *out = {own->data(), size};
    }
    if (head_of(*out).number == number) return true;
    report(number, "has another number in its head");
    return false;
}

// Whether every node of a page lies within it.
bool page_walk::nodes_fit(std::string_view page, bool leaf, size_t *count) {
    page_head head = head_of(page);
    size_t lower = head.nodes.lower;
    size_t upper = head.nodes.upper;
    if (lower <= sizeof(head) || lower % 2 != 0 || lower > upper || upper > page.size())
        return false;
    *count = (lower - sizeof(head)) / 2;
    for (size_t n = 0; n < *count; ++n) {
        size_t offset = offset_of(page, n);
        if (offset < upper || offset + sizeof(node_head) > page.size()) return false;
        node_head found = node_at(page, offset);
        size_t size = sizeof(node_head) + found.key_size;
        if (leaf) size += found.flags == LONG_VALUE ? sizeof(page_number) : found.value_size();
        if (size > page.size() - offset) return false;
    }
    return leaf || *count > 1;
}

void page_walk::walk_page(tree *which, page_number number, const bounds &within, unsigned depth) {
    buffer own;
    std::string_view page;
    size_t count = 0;
    bool sound = depth <= MOST_LEVELS && load(number, 1, &own, &page);
    uint16_t kind = sound ? head_of(page).kind : uint16_t{0};
    if (sound && kind != LEAF_PAGE && kind != BRANCH_PAGE) {
        report(number, std::string("is no page of ") + which->name);
        sound = false;
    }
    if (sound && !nodes_fit(page, kind == LEAF_PAGE, &count)) {
        report(number, "has entries that do not lie within it");
        sound = false;
    }
    if (!sound) {
        whole_ = false;
    } else if (kind == LEAF_PAGE) {
        which->found.depth = std::max(which->found.depth, static_cast<uint16_t>(depth));
        if (depth != which->head.depth) report(number, "is not as deep as its tree states");
        walk_leaf(which, page, within);
    } else {
        walk_branch(which, page, within, depth);
    }
}

// The first key of a branch page has no meaning.
void page_walk::walk_branch(tree *which, std::string_view page, const bounds &within,
                            unsigned depth) {
    page_number number = head_of(page).number;
    ++which->found.branch_pages;
    size_t count = (head_of(page).nodes.lower - sizeof(page_head)) / 2;
    bounds below = within;
    for (size_t n = 0; n < count; ++n) {
        if (n > 0) below.first = below.behind;
        below.behind = within.behind;
        if (n + 1 < count) below.behind = std::string(key_at(page, offset_of(page, n + 1)));
        if (below.first && below.behind && !which->before(*below.first, *below.behind)) {
            report(number, "has keys that are out of order");
        }
        page_number child = node_at(page, offset_of(page, n)).child();
        if (claim(child, 1, name_of_page(number))) {
            walk_page(which, child, below, depth + 1);
        } else {
            whole_ = false;
        }
    }
}

void page_walk::walk_leaf(tree *which, std::string_view page, const bounds &within) {
    page_number number = head_of(page).number;
    ++which->found.leaf_pages;
    size_t count = (head_of(page).nodes.lower - sizeof(page_head)) / 2;
    std::string_view before;
    for (size_t n = 0; n < count; ++n) {
        size_t offset = offset_of(page, n);
        std::string_view key = key_at(page, offset);
        size_t size = key.size();
        bool sized = which->numbers ? size == sizeof(size_t) : size > 0 && size <= LONGEST_KEY;
        if (!sized) {
            report(number, "has a key of " + std::to_string(size) + " bytes");
            continue;
        }
        bool ordered = (n == 0 || which->before(before, key)) &&
                       (!within.first || !which->before(key, *within.first)) &&
                       (!within.behind || which->before(key, *within.behind));
        if (!ordered) report(number, "has a key that no search can find");
        before = key;
        ++which->found.rows;
        walk_row(which, page, offset);
    }
}

void page_walk::walk_row(tree *which, std::string_view page, size_t offset) {
    page_number number = head_of(page).number;
    node_head found = node_at(page, offset);
    std::string_view key = key_at(page, offset);
    std::string_view value = page.substr(offset + sizeof(node_head) + key.size());
    if (found.flags == 0) return which->visit(key, value.substr(0, found.value_size()));
    if (found.flags != LONG_VALUE) return report(number, "has a row of another kind");
    page_number first = 0;
    memcpy(&first, value.data(), sizeof(first));
    buffer own;
    std::string_view bytes;
    if (!load_value(first, found.value_size(), name_of_page(number), &own, &bytes)) {
        whole_ = false;
        return;
    }
    which->found.value_pages += bytes.size() / state_.page_size();
    which->visit(key, bytes.substr(sizeof(page_head), found.value_size()));
}

// A value may have more pages than it needs, if it was longer before.
bool page_walk::load_value(page_number first, size_t size, const std::string &owner, buffer *own,
                           std::string_view *out) {
    if (!claim(first, 1, owner) || !load(first, 1, own, out)) return false;
    page_head head = head_of(*out);
    size_t needed = (sizeof(head) - 1 + size) / state_.page_size() + 1;
    if (head.kind != VALUE_PAGE || head.pages < needed) {
        report(first, "is no value of such a size");
        return false;
    }
    return claim(first + 1, head.pages - 1, owner) && load(first, head.pages, own, out);
}

// ---- Accounts -----------------------------------------------------------------------------------

// A row of the free list: how many pages, and their numbers.
void page_walk::take_free(std::string_view key, std::string_view bytes) {
    size_t commit = 0;
    size_t count = 0;
    memcpy(&commit, key.data(), sizeof(commit));
    std::string owner = "the pages that commit " + std::to_string(commit) + " freed";
    if (bytes.size() >= sizeof(count)) memcpy(&count, bytes.data(), sizeof(count));
    if (commit > state_.commit || count >= bytes.size() / sizeof(page_number)) {
        return damage_(owner, "are no list of pages");
    }
    for (size_t n = 1; n <= count; ++n) {
        page_number number = 0;
        memcpy(&number, bytes.data() + n * sizeof(number), sizeof(number));
        if (!claim(number, 1, owner)) whole_ = false;
    }
}

void page_walk::compare_counts(const tree &which) {
    const tree_head &stated = which.head;
    const tree_head &found = which.found;
    bool same = stated.depth == found.depth && stated.branch_pages == found.branch_pages &&
                stated.leaf_pages == found.leaf_pages && stated.value_pages == found.value_pages &&
                stated.rows == found.rows;
    if (!same) damage_(which.name, "has other numbers of pages or rows than its meta states");
}

void page_walk::report_lost() {
    auto lost = std::find(claimed_.begin(), claimed_.end(), false);
    if (lost == claimed_.end()) return;
    report(static_cast<page_number>(lost - claimed_.begin()), "is neither in use nor free");
}

}  // namespace keyview::host
