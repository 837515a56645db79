// The server of HTTP: one thread for all clients, which hands out ready-made answers, and limits on what
// a client may take of time, space and connections.
#pragma once

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "ctl/serve/answers.h"
#include "ctl/serve/endpoint.h"
#include "ctl/serve/followers.h"
#include "ctl/serve/metrics.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace keyview::ctl {

struct server_options {
    std::string certificate, key;  // as PEM; both or none
    std::string login;             // as clients send it, in base64; "" for none
};

// What a request asks for, and the host that it names; "" if it names none.
struct request_target {
    std::string host;
    std::string path;
};

class server {
  public:
    server(endpoint *place, server_options options, metrics *counts);
    server(const server &) = delete;
    server &operator=(const server &) = delete;
    ~server();

    // What is answered from now on.
    void publish(std::shared_ptr<const answer_map> answers);
    void publish_failure(const tool_error &error);

    // Ends connections that take too long; to be called about twice a second.
    void tick();

    // Accepts no more, lets answers end for a while, ends.
    void drain();

    follower_ring followers;
    metrics *const counts;

  private:
    using steady = std::chrono::steady_clock;
    struct peer {
        int fd;
        steady::time_point deadline;
    };

    friend struct server_callbacks;

    int handle(MHD_Connection *connection, const char *path, const char *method, bool begun);
    int send(MHD_Connection *connection, const answer &what);
    answer choose(MHD_Connection *connection, const request_target &target, bool reads);
    bool may_use_host(std::string name) const;
    bool has_login(const char *given) const;
    bool too_many_refused();
    answer read_answer(const std::string &path);
    void set_deadline(MHD_Connection *connection, std::chrono::seconds left);
    size_t connections() const;

    server_options options_;
    const bool checks_host_;
    mutable std::mutex mutex_;  // of what follows
    std::shared_ptr<const answer_map> answers_;
    answer failure_ = error_answer(503, EXIT_REGISTRY, "the cluster is not read yet");
    std::map<MHD_Connection *, peer> peers_;
    steady::time_point refused_since_;
    int refused_ = 0;

    std::atomic<steady::rep> alive_ = 0;  // when the reader of the cluster called last
    steady::time_point heartbeat_ = steady::now();
    MHD_Daemon *daemon_ = nullptr;
};

}  // namespace keyview::ctl
