// Keepalives under way: each is one request and one response on a stream of its own, without a
// waiting thread.
#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "host/support/unique.h"

namespace keyview::host {

class keepalives : unique {
  public:
    keepalives();

    // Cancels those that are under way. The channels must outlive it: if a callback dropped the
    // last reference to a channel, gRPC would wait for the thread that the callback runs on.
    ~keepalives();

    // See connection::keep_alive().
    void start(const std::shared_ptr<grpc::Channel> &channel,
               std::unique_ptr<grpc::ClientContext> context, int64_t lease,
               std::function<void(int64_t)> on_ttl);

  private:
    struct one_call;

    void end(const one_call *ended);

    std::mutex mutex_;
    std::condition_variable ended_;
    std::list<std::unique_ptr<one_call>> under_way_;
};

}  // namespace keyview::host
