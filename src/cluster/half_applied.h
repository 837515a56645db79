// Waits while a change set is applied in pieces, so that no reader sees a part of it.
#ifndef KEYVIEW_CLUSTER_HALF_APPLIED_H
#define KEYVIEW_CLUSTER_HALF_APPLIED_H

#include <string>

#include "cluster/session.h"

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

}  // namespace keyview::host

#endif
