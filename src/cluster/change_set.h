// A change set on its way into the cluster: in one transaction if it fits, else in pieces.
//
// In pieces it goes like this. The journal is written first: for each piece how its keys should be,
// and how they were. Then the marker appears, in a transaction that looks whether the tree is still
// the one that was planned for. While there is a marker nobody reads or sets: they wait. Each piece
// moves the marker on in its own transaction, so it is carried out once. The last transaction
// removes marker and journal. If the writer dies between, what is left can be finished or taken
// back by anyone, from where it stands.
#ifndef KEYVIEW_CLUSTER_CHANGE_SET_H
#define KEYVIEW_CLUSTER_CHANGE_SET_H

#include <vector>

#include "cluster/session.h"
#include "host/registry/store.h"

namespace keyview::host {

change_counts carry_out(session *cluster, const std::vector<change> &changes,
                        const apply_terms &terms);

// Ends a change set that stopped half-way; false if there is none.
bool finish_half_applied(session *cluster, finish how);

}  // namespace keyview::host

#endif
