// Walks the pages of one state of an LMDB data file from the roots, without LMDB: each page is what
// the page above it states, no page is used twice, the free list has all the others, keys are in
// order and within the bounds of their page. After a walk without damage LMDB finds every row, and
// no page number leads out of the file.
//
// Everything is read with pread and bounded by the file's size, so no damage ends the process.
#ifndef KEYVIEW_HOST_EMBEDDED_PAGES_PAGE_WALK_H
#define KEYVIEW_HOST_EMBEDDED_PAGES_PAGE_WALK_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/embedded/pages/file_head.h"

namespace keyview::host {

class page_walk {
  public:
    using row_visitor = std::function<void(std::string_view key, std::string_view bytes)>;

    // The state's pages must not change meanwhile: a reader of LMDB uses it, or no writer is at
    // work.
    page_walk(int fd, const meta &state, damage_sink damage);

    // Walks both trees. Rows are visited in the order of their keys; what is below a damaged page
    // is left out.
    void run(const row_visitor &visit);

    size_t pages() const { return state_.last_page + 1; }

  private:
    struct tree;
    struct bounds;
    using buffer = std::vector<char>;

    void walk_page(tree *which, page_number number, const std::string &owner, const bounds &within,
                   unsigned depth);
    void walk_branch(tree *which, std::string_view page, const bounds &within, unsigned depth);
    void walk_leaf(tree *which, std::string_view page, const bounds &within);
    void walk_row(tree *which, std::string_view page, size_t offset);
    void take_free(std::string_view key, std::string_view bytes);
    void compare_counts(const tree &which);
    void report_lost();

    bool claim(page_number first, size_t count, const std::string &owner);
    bool load(page_number number, size_t count, buffer *own, std::string_view *out);
    bool load_value(page_number first, size_t size, page_number leaf, buffer *own,
                    std::string_view *out);
    static bool nodes_fit(std::string_view page, bool leaf);
    bool give_up(const std::string &subject, const std::string &reason);
    void report(page_number number, const std::string &reason) const;

    int fd_;
    meta state_;
    damage_sink damage_;
    std::vector<bool> claimed_;
    buffer all_;         // of a small file; else empty
    bool whole_ = true;  // every page was read
};

}  // namespace keyview::host

#endif
