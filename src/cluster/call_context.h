// The deadline and the token of a call to a member.
#ifndef KEYVIEW_CLUSTER_CALL_CONTEXT_H
#define KEYVIEW_CLUSTER_CALL_CONTEXT_H

#include <grpcpp/client_context.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "cluster/cluster_settings.h"

namespace keyview::host {

inline void prepare(grpc::ClientContext *context, steady::time_point end,
                    const std::string &token) {
    context->set_deadline(std::chrono::system_clock::now() +
                          std::max(end - steady::now(), steady::duration::zero()));
    if (!token.empty()) context->AddMetadata("token", token);
}

}  // namespace keyview::host

#endif
