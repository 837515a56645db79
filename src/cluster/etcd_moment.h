// Reads of the tree in a cluster as of one revision, which wait while a change set is applied in
// pieces: no reader sees a part of it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "cluster/session.h"
#include "cluster/tree_part.h"
#include "host/registry/store.h"

namespace keyview::host {

class half_applied_wait {
  public:
    explicit half_applied_wait(session *cluster) : cluster_(cluster) {}

    // Waits for a moment. Throws failure::content if the marker does not move: its writer is dead.
    void wait(const std::string &marker);

  private:
    session *cluster_;
    std::string seen_;
    steady::time_point end_;
};

// The text about a marker for users.
std::string half_applied_text(const std::string &marker);

// Reads a part, as of a revision or, with 0, the present one once no change set is half applied.
void read_part(session *cluster, tree_part *part, int64_t revision);

// Whether a key in a cluster can have this path.
bool can_be_key(std::string_view path);

// The moment of a part that was read, or else of the first read.
std::unique_ptr<moment> moment_of(std::shared_ptr<session> cluster, tree_part part);

}  // namespace keyview::host
