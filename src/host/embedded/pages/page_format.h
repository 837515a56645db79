// The file format of LMDB, as far as it is read here without LMDB. All that this folder assumes of
// it is in this list; foreign_format() in file_head.h detects other formats.
//
//   - Format version 1, as LMDB 0.9 writes it; the release at run time is 0.9, too.
//   - Words, page numbers and offsets have the byte order and size of the machine.
//   - The file is a row of pages of one size, a power of two from 512 bytes to 32 KiB. A page
//     begins with page_head; its number is its index in the file. A long value has one head for all
//     pages.
//   - Pages 0 and 1 are metas. A commit with the number n writes meta n % 2 last, so the two have
//     commits that follow each other; a new file has commit 0 in both, and a compacted copy 0 and
//     1. A commit whose meta cannot be written leaves the number and the last page of the meta that
//     was there, and its own trees and map.
//   - A meta names the roots of two trees: the keys of the unnamed database in the order of memcmp,
//     and the free list with commit numbers as keys. Their statistics are exact.
//   - Branch and leaf pages hold 2-byte offsets behind the head, in key order, and nodes from the
//     end of the page, without a gap; each begins at an even offset. A node has 8 bytes before its
//     key. The first key of a branch page means nothing.
//   - A value that does not fit a leaf is in pages of its own; its node has flag 1 and their
//     number.
//   - Each commit enters the pages that it freed into the free list under its own number, or under
//     the number before if that is the last entry. Entries are a count and page numbers.
//   - Every page up to the last one of the meta is in one tree, in the free list, or a meta.
//   - The file is as long as the map; a copy that mdb_copy made ends with the last page in use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace keyview::host {

// A value at an offset, which need not be aligned. The bytes must have it in whole.
template <typename T>
T value_at(std::string_view bytes, size_t offset) {
    T value;
    memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

using page_number = size_t;
constexpr page_number NO_PAGE = ~page_number{0};

struct page_head {
    page_number number;
    uint16_t pad;
    uint16_t kind;
    union {
        struct {
            uint16_t lower;  // behind the offsets of the nodes
            uint16_t upper;  // the first node
        } nodes;
        uint32_t pages;  // of a long value
    };
};
static_assert(sizeof(page_head) == 16, "the layout is LMDB's");

constexpr uint16_t BRANCH_PAGE = 1;
constexpr uint16_t LEAF_PAGE = 2;
constexpr uint16_t VALUE_PAGE = 4;
constexpr uint16_t META_PAGE = 8;

// The head of a row in a leaf, or of a branch to a page below.
struct node_head {
    uint16_t low;
    uint16_t high;
    uint16_t flags;
    uint16_t key_size;

    size_t value_size() const { return low | size_t{high} << 16; }
    page_number child() const { return low | page_number{high} << 16 | page_number{flags} << 32; }
};
static_assert(sizeof(node_head) == 8, "the layout is LMDB's");

constexpr uint16_t LONG_VALUE = 1;  // the node's value has pages of its own

struct tree_head {
    uint32_t page_size;  // in the free list's, else 0
    uint16_t flags;
    uint16_t depth;
    size_t branch_pages;
    size_t leaf_pages;
    size_t value_pages;
    size_t rows;
    page_number root;
};

struct meta {
    uint32_t magic;
    uint32_t version;
    size_t address;
    size_t map_size;
    tree_head free_list;
    tree_head keys;
    page_number last_page;
    size_t commit;

    size_t page_size() const { return free_list.page_size; }
    size_t bytes_in_use() const { return (last_page + 1) * page_size(); }
};
static_assert(sizeof(meta) == 136, "the layout is LMDB's");

struct meta_page {
    page_head head;
    meta content;
};

constexpr size_t LONGEST_KEY = 511;  // what LMDB is built with
constexpr size_t LARGEST_PAGE = size_t{32} << 10;
constexpr unsigned MOST_LEVELS = 32;

}  // namespace keyview::host
