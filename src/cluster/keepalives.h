// Keepalives under way: each is one request and one response on a stream of its own, without a
// waiting thread.
#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "host/support/unique.h"

namespace keyview::host {

class keepalives : unique {
  public:
    keepalives();

    // Cancels those that are under way, and waits for them, but not without end. The channels must
    // outlive it: if a callback dropped the last reference to a channel, gRPC would wait for the
    // thread that the callback runs on.
    ~keepalives();

    // See connection::keep_alive().
    void start(const std::shared_ptr<grpc::Channel> &channel,
               std::unique_ptr<grpc::ClientContext> context, int64_t lease,
               std::function<void(int64_t)> on_ttl);

  private:
    struct one_call;
    struct calls;

    std::shared_ptr<calls> calls_;
};

}  // namespace keyview::host
