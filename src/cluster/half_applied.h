// Waiting while a change set is carried out in pieces, so that nobody takes a part of it for all.
#ifndef KEYVIEW_CLUSTER_HALF_APPLIED_H
#define KEYVIEW_CLUSTER_HALF_APPLIED_H

#include <string>

#include "cluster/session.h"

namespace keyview::host {

class half_applied_wait {
  public:
    explicit half_applied_wait(session *cluster) : cluster_(cluster) {}

    // A little. Throws failure::content if the marker stays as it is: then its writer is gone.
    void wait(const std::string &marker);

  private:
    session *cluster_;
    std::string seen_;
    steady::time_point end_;
};

// What a person is told of a marker.
std::string half_applied_text(const std::string &marker);

}  // namespace keyview::host

#endif
