// Applies a change set: in one transaction if it fits, else in pieces.
//
// First the journal is written: for each piece its keys after and before the change. Then a
// transaction that requires the planned revision of the tree creates the marker; if the tree has moved,
// the journal is deleted. While the marker exists, readers and writers wait. Each piece is applied in a
// transaction of its own, which advances the marker, so that it is applied once. The last transaction
// deletes marker and journal. If the writer dies in between, any program can resume or undo the rest from
// the position of the marker.
//
// Other writers may change the tree meanwhile, and small changes would overtake a large one again and
// again. So once it was overtaken it creates the marker first, without pieces, which holds them off while
// it is planned and the journal is written.
#pragma once

#include <vector>

#include "cluster/session.h"
#include "host/registry/store.h"

namespace keyview::host {

change_counts apply_changes(session *cluster, const change_source &changes,
                            const apply_terms &terms);

// Ends a change set that stopped half-way; false if there is none.
bool finish_half_applied(session *cluster, finish how);

}  // namespace keyview::host
