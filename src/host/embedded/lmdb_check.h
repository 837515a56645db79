// Checks a registry: its pages (page_walk.h), its rows, and the rows against each other. In brief
// on opening, which must only ensure that no key is hidden, and in full for administrators.
#pragma once

#include "host/embedded/pages/file_head.h"
#include "host/registry/backend.h"

namespace keyview::host {

// Reports what could hide a key of a state from its readers. A damaged row with an
// undamaged LMDB key does not: reading refuses it, and a change may replace it.
void require_all_found(int fd, const meta &state, const damage_sink &damage);

// Reports all damage. Every row that is sound is delivered, in no order. No writer may be at work
// meanwhile.
check_counts check_data_file(int fd, const damage_sink &damage, const row_sink &sink);

}  // namespace keyview::host
