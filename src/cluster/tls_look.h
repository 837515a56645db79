// A look at how a member of the cluster proves who it is, for a clear text: gRPC tells only that it
// does not trust it.
#ifndef KEYVIEW_CLUSTER_TLS_LOOK_H
#define KEYVIEW_CLUSTER_TLS_LOOK_H

#include <chrono>
#include <string>

#include "cluster/cluster_settings.h"

namespace keyview::host {

struct tls_facts {
    std::string fault;         // why the member cannot be trusted or spoken to; empty if it can
    int64_t seconds_left = 0;  // of the member's certificate; negative if it has expired
};

// Shakes hands with "host:port" as the settings say.
tls_facts look_at_tls(const cluster_settings &settings, const std::string &member,
                      std::chrono::milliseconds patience);

}  // namespace keyview::host

#endif
