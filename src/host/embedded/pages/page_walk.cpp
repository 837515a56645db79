// The walk over the pages of a data file.
#include "host/embedded/pages/page_walk.h"

#include <algorithm>
#include <bitset>
#include <optional>
#include <string>
#include <vector>

namespace keyview::host {

namespace {

// One of the two trees, and what was found of it.
struct tree {
    const tree_head &head;
    const char *name;
    bool numbers;  // the keys are numbers in the machine's byte order
    const node_visitor &visit;
    tree_head found = {};

    bool before(std::string_view a, std::string_view b) const {
        return numbers ? value_at<size_t>(a, 0) < value_at<size_t>(b, 0) : a < b;
    }
};

// Where the keys of a page must lie: from first on, before behind. Absent ones do not bound.
struct bounds {
    std::optional<std::string> first;
    std::optional<std::string> behind;
};

}  // namespace

static std::string name_of_page(page_number number) {
    return "page " + std::to_string(number) + " of data.mdb";
}

static page_head head_of(std::string_view page) {
    return value_at<page_head>(page, 0);
}

static size_t nodes_of(std::string_view page) {
    return (head_of(page).nodes.lower - sizeof(page_head)) / sizeof(uint16_t);
}

static size_t offset_of(std::string_view page, size_t index) {
    return value_at<uint16_t>(page, sizeof(page_head) + index * sizeof(uint16_t));
}

static node_head node_at(std::string_view page, size_t offset) {
    return value_at<node_head>(page, offset);
}

static std::string_view key_at(std::string_view page, size_t offset) {
    return page.substr(offset + sizeof(node_head), node_at(page, offset).key_size);
}

namespace {

class page_walk {
  public:
    page_walk(int fd, const meta &state, const damage_sink &damage)
        : fd_(fd), state_(state), damage_(damage), claimed_(state.last_page + 1) {
        claimed_[0] = claimed_[1] = true;  // the metas
    }

    void run(const node_visitor &visit) {
        node_visitor take = [this](std::string_view key, std::string_view bytes) {
            take_free(key, bytes);
        };
        tree keys = {state_.keys, "the tree of keys", false, visit};
        tree free_list = {state_.free_list, "the free list", true, take};
        for (tree *each : {&keys, &free_list}) {
            if (each->head.root != NO_PAGE) walk_page(each, each->head.root, each->name, {}, 1);
        }
        if (!whole_) return;  // the rest follows from the damaged page
        compare_counts(keys);
        compare_counts(free_list);
        report_lost();
    }

  private:
    using buffer = std::vector<char>;

    void report(page_number number, const std::string &reason) const {
        damage_(name_of_page(number), reason);
    }

    // Reports damage behind which pages are not reached. Returns false.
    bool give_up(const std::string &subject, const std::string &reason) {
        damage_(subject, reason);
        return whole_ = false;
    }

    // ---- Pages ----------------------------------------------------------------------------------

    // Enters pages as used; false if one cannot be, or is used already.
    bool claim(page_number first, size_t count, const std::string &owner) {
        if (first > state_.last_page + 1 || count > state_.last_page + 1 - first)
            return give_up(owner,
                           "names page " + std::to_string(first) + ", which is outside the file");
        auto from = claimed_.begin() + static_cast<std::ptrdiff_t>(first);
        auto to = from + static_cast<std::ptrdiff_t>(count);
        auto twice = std::find(from, to, true);
        if (twice != to) {
            auto number = static_cast<page_number>(twice - claimed_.begin());
            return give_up(owner,
                           "names page " + std::to_string(number) + ", which is in use already");
        }
        std::fill(from, to, true);
        return true;
    }

    // Page by page into the same memory: to touch new memory takes longer than to read a page.
    bool load(page_number number, size_t count, buffer *own, std::string_view *out) {
        own->resize(count * state_.page_size());
        if (!read_bytes(fd_, own->data(), own->size(), number * state_.page_size()))
            return give_up(name_of_page(number), "cannot be read");
        *out = {own->data(), own->size()};
        if (head_of(*out).number == number) return true;
        return give_up(name_of_page(number), "has another number in its head");
    }

    static size_t size_of_node(std::string_view page, size_t offset, bool leaf) {
        node_head found = node_at(page, offset);
        size_t size = sizeof(node_head) + found.key_size;
        if (leaf) size += found.flags == LONG_VALUE ? sizeof(page_number) : found.value_size();
        return size;
    }

    // Whether every node of a page lies within it.
    static bool nodes_fit(std::string_view page, bool leaf) {
        page_head head = head_of(page);
        size_t lower = head.nodes.lower;
        size_t upper = head.nodes.upper;
        if (lower <= sizeof(head) || lower % 2 != 0 || lower > upper || upper > page.size())
            return false;
        for (size_t n = 0; n < nodes_of(page); ++n) {
            size_t offset = offset_of(page, n);
            if (offset < upper || offset + sizeof(node_head) > page.size()) return false;
            if (size_of_node(page, offset, leaf) > page.size() - offset) return false;
        }
        return leaf || nodes_of(page) > 1;
    }

    // Whether the nodes, which lie within the page, fill it from the first one to its end. A change
    // moves them by their sizes.
    static bool nodes_fill(std::string_view page, bool leaf) {
        std::bitset<LARGEST_PAGE / 2 + 1> starts, ends;  // each but the last end is a start
        size_t upper = head_of(page).nodes.upper;
        if (upper % 2 != 0) return false;
        starts.set(page.size() / 2);
        ends.set(upper / 2);
        for (size_t n = 0; n < nodes_of(page); ++n) {
            size_t start = offset_of(page, n);
            size_t end = (start + size_of_node(page, start, leaf) + 1) / 2;
            if (start % 2 != 0 || starts[start / 2] || ends[end]) return false;
            starts.set(start / 2);
            ends.set(end);
        }
        return starts == ends;
    }

    void walk_page(tree *which, page_number number, const std::string &owner, const bounds &within,
                   unsigned depth) {
        buffer own;
        std::string_view page;
        if (!claim(number, 1, owner) || !load(number, 1, &own, &page)) return;
        uint16_t kind = head_of(page).kind;
        bool leaf = kind == LEAF_PAGE;
        std::string fault;
        if ((!leaf && kind != BRANCH_PAGE) || depth > MOST_LEVELS) {
            fault = std::string("is no page of ") + which->name;
        } else if (!nodes_fit(page, leaf)) {
            fault = "has entries that do not lie within it";
        }
        if (!fault.empty()) return (void)give_up(name_of_page(number), fault);
        if (!nodes_fill(page, leaf)) report(number, "has entries that overlap or leave a gap");
        if (!leaf) return walk_branch(which, page, within, depth);
        which->found.depth = std::max(which->found.depth, static_cast<uint16_t>(depth));
        if (depth != which->head.depth) report(number, "is not as deep as its tree states");
        walk_leaf(which, page, within);
    }

    // The first key of a branch page has no meaning.
    void walk_branch(tree *which, std::string_view page, const bounds &within, unsigned depth) {
        page_number number = head_of(page).number;
        ++which->found.branch_pages;
        bounds below = within;
        for (size_t n = 0; n < nodes_of(page); ++n) {
            if (n > 0) below.first = below.behind;
            below.behind = within.behind;
            if (n + 1 < nodes_of(page))
                below.behind = std::string(key_at(page, offset_of(page, n + 1)));
            if (below.first && below.behind && !which->before(*below.first, *below.behind)) {
                report(number, "has keys that are out of order");
            }
            page_number child = node_at(page, offset_of(page, n)).child();
            walk_page(which, child, name_of_page(number), below, depth + 1);
        }
    }

    void walk_leaf(tree *which, std::string_view page, const bounds &within) {
        page_number number = head_of(page).number;
        ++which->found.leaf_pages;
        std::string_view before;
        for (size_t n = 0; n < nodes_of(page); ++n) {
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

    void walk_row(tree *which, std::string_view page, size_t offset) {
        page_number number = head_of(page).number;
        node_head found = node_at(page, offset);
        std::string_view key = key_at(page, offset);
        std::string_view value = page.substr(offset + sizeof(node_head) + key.size());
        if (found.flags == 0) return which->visit(key, value.substr(0, found.value_size()));
        if (found.flags != LONG_VALUE) return report(number, "has a row of another kind");
        buffer own;
        std::string_view bytes;
        if (!load_value(value_at<page_number>(value, 0), found.value_size(), number, &own, &bytes))
            return;
        which->found.value_pages += bytes.size() / state_.page_size();
        which->visit(key, bytes.substr(sizeof(page_head), found.value_size()));
    }

    // A value may have more pages than it needs, if it was longer before.
    bool load_value(page_number first, size_t size, page_number leaf, buffer *own,
                    std::string_view *out) {
        std::string owner = name_of_page(leaf);
        if (!claim(first, 1, owner) || !load(first, 1, own, out)) return false;
        page_head head = head_of(*out);
        size_t needed = (sizeof(head) - 1 + size) / state_.page_size() + 1;
        if (head.kind != VALUE_PAGE || head.pages < needed)
            return give_up(name_of_page(first), "is no value of such a size");
        return claim(first + 1, head.pages - 1, owner) && load(first, head.pages, own, out);
    }

    // ---- Accounts -------------------------------------------------------------------------------

    // A row of the free list: how many pages, and their numbers.
    void take_free(std::string_view key, std::string_view bytes) {
        auto commit = value_at<size_t>(key, 0);
        size_t count = bytes.size() < sizeof(count) ? 0 : value_at<size_t>(bytes, 0);
        std::string owner = "the pages that commit " + std::to_string(commit) + " freed";
        if (commit > state_.commit || count >= bytes.size() / sizeof(page_number)) {
            return damage_(owner, "are no list of pages");
        }
        for (size_t n = 1; n <= count; ++n)
            (void)claim(value_at<page_number>(bytes, n * sizeof(page_number)), 1, owner);
    }

    void compare_counts(const tree &which) {
        const tree_head &stated = which.head;
        const tree_head &found = which.found;
        bool same = stated.depth == found.depth && stated.branch_pages == found.branch_pages &&
                    stated.leaf_pages == found.leaf_pages &&
                    stated.value_pages == found.value_pages && stated.rows == found.rows;
        if (!same) damage_(which.name, "has other numbers of pages or rows than its meta states");
    }

    void report_lost() {
        auto lost = std::find(claimed_.begin(), claimed_.end(), false);
        if (lost == claimed_.end()) return;
        report(static_cast<page_number>(lost - claimed_.begin()), "is neither in use nor free");
    }

    int fd_;
    const meta &state_;
    const damage_sink &damage_;
    std::vector<bool> claimed_;
    bool whole_ = true;  // every page was read
};

}  // namespace

void walk_pages(int fd, const meta &state, const damage_sink &damage, const node_visitor &visit) {
    page_walk(fd, state, damage).run(visit);
}

}  // namespace keyview::host
