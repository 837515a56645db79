// See keepalives.h.
#include "cluster/keepalives.h"

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>

#include "cluster/etcd.grpc.pb.h"
#include "cluster/faults.h"
#include "cluster/request.h"

namespace keyview::host {

using keep_alive_reactor =
    grpc::ClientBidiReactor<wire::LeaseKeepAliveRequest, wire::LeaseKeepAliveResponse>;

struct keepalives::calls {
    void end(const one_call *call);

    std::mutex mutex;
    std::condition_variable ended;
    std::list<std::unique_ptr<one_call>> under_way;
    size_t reporting = 0;    // callbacks that run
    bool abandoned = false;  // what the callbacks refer to is gone
    calls *abandoned_before = nullptr;
};

struct keepalives::one_call final : keep_alive_reactor {
    one_call(const std::shared_ptr<calls> &all, const std::shared_ptr<grpc::Channel> &channel,
             std::unique_ptr<grpc::ClientContext> its_context, int64_t lease,
             std::function<void(int64_t)> its_on_ttl)
        : of(all), leases(channel), context(std::move(its_context)), on_ttl(std::move(its_on_ttl)) {
        request.set_id(lease);
    }

    void start() noexcept {
        if (faults.lose_keep_alives) return;
        leases.async()->LeaseKeepAlive(context.get(), this);
        StartRead(&response);
        StartWrite(&request);
        StartCall();
    }

    void OnReadDone(bool ok) override {
        if (!ok) return;
        report(response.ttl());
        context->TryCancel();
    }

    void OnDone(const grpc::Status &) override {
        report(-1);
        std::shared_ptr<calls>(of)->end(this);
    }

    void report(int64_t ttl) {
        std::unique_lock guard(of->mutex);
        if (of->abandoned || !on_ttl) return;
        std::function<void(int64_t)> callback = std::exchange(on_ttl, nullptr);
        ++of->reporting;
        guard.unlock();
        callback(ttl);
        guard.lock();
        --of->reporting;
        of->ended.notify_all();
    }

    std::shared_ptr<calls> of;
    wire::Lease::Stub leases;
    std::unique_ptr<grpc::ClientContext> context;
    wire::LeaseKeepAliveRequest request;
    wire::LeaseKeepAliveResponse response;
    std::function<void(int64_t)> on_ttl;
};

void keepalives::calls::end(const one_call *call) {
    std::lock_guard guard(mutex);
    if (abandoned) return;
    under_way.remove_if([&](const auto &one) { return one.get() == call; });
    ended.notify_all();
}

keepalives::keepalives() : calls_(std::make_shared<calls>()) {}

// gRPC was seen to lose a call: neither its deadline nor that it was cancelled ended it. Such a call,
// and its channel with it, stays in memory: gRPC may still use it.
keepalives::~keepalives() {
    static constexpr std::chrono::seconds LONGEST_END{2};
    std::unique_lock guard(calls_->mutex);
    for (const std::unique_ptr<one_call> &one : calls_->under_way)
        one->context->TryCancel();
    auto all_ended = [this] { return calls_->under_way.empty(); };
    if (calls_->ended.wait_for(guard, LONGEST_END, all_ended)) return;
    calls_->abandoned = true;
    // Its calls own the list that they are in. All such lists are found from here: none is a leak.
    static std::atomic<calls *> latest;
    calls_->abandoned_before = latest.exchange(calls_.get());
    calls_->ended.wait(guard, [this] { return calls_->reporting == 0; });
}

void keepalives::start(const std::shared_ptr<grpc::Channel> &channel,
                       std::unique_ptr<grpc::ClientContext> context, int64_t lease,
                       std::function<void(int64_t)> on_ttl) {
    auto made =
        std::make_unique<one_call>(calls_, channel, std::move(context), lease, std::move(on_ttl));
    std::unique_lock guard(calls_->mutex);
    one_call *call = calls_->under_way.emplace_back(std::move(made)).get();
    guard.unlock();
    call->start();
}

}  // namespace keyview::host
