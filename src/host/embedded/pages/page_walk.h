// Walks the pages of one state of an LMDB data file from the roots, without LMDB: each page is what
// the page above it states, no page is used twice, the free list has all the others, keys are in
// order and within the bounds of their page. After a walk without damage LMDB finds every row, and
// no page number leads out of the file.
//
// Everything is read with pread and bounded by the file's size, so no damage ends the process.
#pragma once

#include <functional>
#include <string_view>

#include "host/embedded/pages/file_head.h"

namespace keyview::host {

// Receives the key and the value of a row.
using node_visitor = std::function<void(std::string_view key, std::string_view value)>;

// Walks the trees of the state. Rows are visited in the order of their keys; what is below a
// damaged page is left out. The state's pages must not change meanwhile: a reader of LMDB uses it,
// or no writer is at work.
void walk_pages(int fd, const meta &state, const damage_sink &damage, const node_visitor &visit);

}  // namespace keyview::host
