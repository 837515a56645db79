// The tree in a cluster as of one revision.
#ifndef KEYVIEW_CLUSTER_ETCD_MOMENT_H
#define KEYVIEW_CLUSTER_ETCD_MOMENT_H

#include <memory>
#include <string_view>

#include "cluster/session.h"
#include "cluster/tree_part.h"
#include "host/registry/store.h"

namespace keyview::host {

// Reads a part, as of a revision or, with 0, the present one once no change set is half applied.
void read_part(session *cluster, tree_part *part, int64_t revision);

// Whether a key in a cluster can have this path.
bool can_be_key(std::string_view path);

// The moment of a part that was read, or else of the first read.
std::unique_ptr<moment> moment_of(std::shared_ptr<session> cluster, tree_part part);

}  // namespace keyview::host

#endif
