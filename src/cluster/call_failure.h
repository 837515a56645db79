// What the failure of a call to a member of the cluster means: whether another try is worth it, and
// what a person should do.
#ifndef KEYVIEW_CLUSTER_CALL_FAILURE_H
#define KEYVIEW_CLUSTER_CALL_FAILURE_H

#include <grpcpp/support/status.h>

#include <string>
#include <string_view>

#include "cluster/connection.h"

namespace keyview::host {

enum class verdict { final, next_member, log_in };

struct judgement {
    std::string_view part;  // of the server's text
    verdict act;
    failure kind;
    etcd_reason reason;
    const char *what_to_do;
};

judgement judge(const grpc::Status &status);

// A cause in few words, of which this is one: then nothing was sent.
constexpr const char *REFUSED = "connection refused";
std::string cause_of(const grpc::Status &status);

}  // namespace keyview::host

#endif
