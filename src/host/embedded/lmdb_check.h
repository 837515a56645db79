// Whether a registry is sound: its pages (page_walk.h), its rows and what the rows say of each
// other. Once for those who open it, who must only know that nothing is hidden from them, and once
// in full, for administrators.
#ifndef KEYVIEW_HOST_EMBEDDED_LMDB_CHECK_H
#define KEYVIEW_HOST_EMBEDDED_LMDB_CHECK_H

#include "host/embedded/pages/file_head.h"
#include "host/registry/backend.h"

namespace keyview::host {

// Reports what could hide a key of a state from its readers. A damaged row that stands where it
// should is none of that: it is refused when it is read, and may be replaced.
void require_all_found(int fd, const meta &state, const damage_sink &damage);

// Reports all damage. Every row that is sound is delivered, in no order. No writer may be at work
// meanwhile.
check_counts check_data_file(int fd, const damage_sink &damage, const row_sink &sink);

}  // namespace keyview::host

#endif
