// The head of an LMDB data file, read as bytes: its two metas, each with the state of one commit,
// and whether they are sound. LMDB itself trusts them, and a wrong one ends the process or brings
// back an older state.
#pragma once

#include <string>

#include "host/embedded/pages/page_format.h"
#include "host/registry/backend.h"

namespace keyview::host {

struct file_head {
    meta metas[2];

    const meta &newest() const { return metas[metas[1].commit > metas[0].commit ? 1 : 0]; }
};

// Why the pages of a file cannot be inspected: LMDB or the file has another format than the one
// known here. Empty if neither has.
std::string foreign_format(int fd);

// Reads the head. False, and damage reported, unless both metas are plausible, follow each other
// and have the marks that their commits left, and the file has all of its pages. A writer may be at
// work meanwhile.
[[nodiscard]] bool read_head(int fd, file_head *out, const damage_sink &damage);

// The meta that a commit is about to replace. LMDB takes back a commit whose meta it cannot write, but
// not all of it (page_format.h). No reader of the head could tell what is left from damage.
class replaced_meta {
  public:
    // fd: for reading and writing. commit: the number of the one that begins.
    replaced_meta(int fd, size_t commit);

    // After a commit that failed, under the lock of writers: puts the meta back if LMDB took the
    // commit back.
    void restore() const;

  private:
    bool read(meta_page *out) const;

    int fd_;
    size_t at_ = 0;
    meta_page before_{};
    bool known_;
};

// The end of each report of damage: the remedy.
constexpr const char *RESTORE =
    "; restore a backup into a new directory (\"keyviewctl restore FILE --registry lmdb:DIRECTORY\"), or "
    "what is sound here (\"keyviewctl backup --salvage FILE\")";

// Reads all bytes of a range; false if the file has fewer or cannot be read.
[[nodiscard]] bool read_bytes(int fd, void *into, size_t size, size_t at);

}  // namespace keyview::host
