// One handshake with a member, to report why a connection fails: gRPC only reports that it ended.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "cluster/cluster_settings.h"

namespace keyview::host {

struct tls_facts {
    std::string fault;  // of TLS, with its remedy; empty for none, and without an answer
    std::optional<int64_t> seconds_left;  // of the member's certificate, if it sent one
};

// Connects to "host:port" as the settings demand. Without TLS a member that speaks TLS is the fault.
tls_facts probe_tls(const cluster_settings &settings, const std::string &member,
                    std::chrono::milliseconds wait);

}  // namespace keyview::host
