// See keepalives.h.
#include "cluster/keepalives.h"

#include <grpcpp/grpcpp.h>

#include <utility>

#include "cluster/etcd.grpc.pb.h"
#include "cluster/request.h"

namespace keyview::host {

using keep_alive_reactor =
    grpc::ClientBidiReactor<wire::LeaseKeepAliveRequest, wire::LeaseKeepAliveResponse>;

struct keepalives::one_call final : keep_alive_reactor {
    one_call(keepalives *its_owner, const std::shared_ptr<grpc::Channel> &channel,
             std::unique_ptr<grpc::ClientContext> its_context, int64_t lease,
             std::function<void(int64_t)> its_on_ttl)
        : owner(its_owner),
          leases(channel),
          context(std::move(its_context)),
          on_ttl(std::move(its_on_ttl)) {
        request.set_id(lease);
    }

    void start() noexcept {
        leases.async()->LeaseKeepAlive(context.get(), this);
        StartRead(&response);
        StartWrite(&request);
        StartCall();
    }

    void OnReadDone(bool ok) override {
        if (ok && on_ttl) std::exchange(on_ttl, nullptr)(response.ttl());
        if (ok) context->TryCancel();
    }

    void OnDone(const grpc::Status &) override {
        if (on_ttl) on_ttl(-1);
        owner->end(this);
    }

    keepalives *owner;
    wire::Lease::Stub leases;
    std::unique_ptr<grpc::ClientContext> context;
    wire::LeaseKeepAliveRequest request;
    wire::LeaseKeepAliveResponse response;
    std::function<void(int64_t)> on_ttl;
};

keepalives::keepalives() = default;

keepalives::~keepalives() {
    std::unique_lock guard(mutex_);
    for (std::unique_ptr<one_call> &one : under_way_)
        one->context->TryCancel();
    ended_.wait(guard, [this] { return under_way_.empty(); });
}

void keepalives::start(const std::shared_ptr<grpc::Channel> &channel,
                       std::unique_ptr<grpc::ClientContext> context, int64_t lease,
                       std::function<void(int64_t)> on_ttl) {
    auto made =
        std::make_unique<one_call>(this, channel, std::move(context), lease, std::move(on_ttl));
    std::unique_lock guard(mutex_);
    one_call *call = under_way_.emplace_back(std::move(made)).get();
    guard.unlock();
    call->start();
}

void keepalives::end(const one_call *ended) {
    std::lock_guard guard(mutex_);
    under_way_.remove_if([&](const auto &one) { return one.get() == ended; });
    ended_.notify_all();
}

}  // namespace keyview::host
