// Keepalives under way: each one question and one answer on a stream of its own, which nobody waits
// for.
#ifndef KEYVIEW_CLUSTER_KEEPALIVES_H
#define KEYVIEW_CLUSTER_KEEPALIVES_H

#include <grpcpp/channel.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>

#include "cluster/cluster_settings.h"

namespace keyview::host {

class keepalives {
  public:
    keepalives();
    keepalives(const keepalives &) = delete;
    keepalives &operator=(const keepalives &) = delete;

    // Ends those that are under way. The last reference to a channel must not go in a callback:
    // gRPC would wait there for the thread that it runs on. So the channels must live longer.
    ~keepalives();

    // told is called once, on another thread, as connection::keep_alive() has it.
    void start(const std::shared_ptr<grpc::Channel> &channel, const std::string &token,
               steady::time_point end, int64_t lease, std::function<void(int64_t)> told);

  private:
    struct one_call;

    void end(const one_call *ended);

    std::mutex mutex_;
    std::condition_variable ended_;
    std::list<std::unique_ptr<one_call>> under_way_;
};

}  // namespace keyview::host

#endif
