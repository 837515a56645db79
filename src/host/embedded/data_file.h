// The head of an LMDB data file, read as bytes: its two metas, each with the state of one commit,
// and whether they can be believed. LMDB itself trusts them, and a wrong one ends the process or
// brings back an older state. Also how a new file is made. page_walk.h goes on from a meta.
#ifndef KEYVIEW_HOST_EMBEDDED_DATA_FILE_H
#define KEYVIEW_HOST_EMBEDDED_DATA_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/registry/backend.h"

namespace keyview::host {

// As LMDB lays them out; sizes and page numbers are the machine's words.
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
};
static_assert(sizeof(meta) == 136, "the layout is LMDB's");

struct data_head {
    meta metas[2];

    const meta &newest() const { return metas[metas[1].commit > metas[0].commit ? 1 : 0]; }
};

// Reads the head. False, and damage reported, unless both metas are plausible, follow each other
// and bear the marks that their commits left, and the file is as long as they say. A writer may be
// at work meanwhile.
[[nodiscard]] bool read_head(int fd, data_head *out, const damage_sink &damage);

// The rest of the damage's report: how a person goes on.
constexpr const char *RESTORE = "; restore the registry from a saved cluster document";

// Makes a whole, empty data file at a path where there is an empty file, and brings it to the disk.
// Gives 0 or the error of the system or of LMDB.
[[nodiscard]] int make_data_file(const std::string &path);

// Makes the file at least so long, with zeros at its end: so a full disk is met here and not by a
// later commit, and a commit changes nothing but bytes. Only for who may write: nobody else makes
// it longer meanwhile. Gives 0 or errno.
[[nodiscard]] int lengthen(int fd, size_t size);

// Reads all bytes of a range; false if the file has fewer or cannot be read.
[[nodiscard]] bool read_bytes(int fd, void *into, size_t size, size_t at);

}  // namespace keyview::host

#endif
