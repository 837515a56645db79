// The events that clients follow: a ring of the latest ones, and the connections that wait for the next.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <unordered_set>

struct MHD_Connection;
struct MHD_Response;

namespace keyview::ctl {

class follower_ring {
  public:
    // Any thread. An event that is too large is left out: its reader then finds a gap.
    void publish(const char *event, uint64_t revision, const std::string &data);
    void send_heartbeat();  // finds out whose clients are gone
    void end();             // of all, for good

    // The endless answer to one client, which begins with the present revision.
    MHD_Response *follow(MHD_Connection *connection);

    size_t count() const;

  private:
    static constexpr size_t MOST_EVENTS = 1024, LARGEST_EVENT = 65536;
    friend struct follower;

    struct stored_event {
        uint64_t revision;
        std::string text;
    };

    void wake();

    mutable std::mutex mutex_;
    std::deque<stored_event> events_;
    uint64_t first_ = 0;  // the number of the first one
    uint64_t revision_ = 0, heartbeats_ = 0;
    std::unordered_set<MHD_Connection *> waiting_;
    size_t followers_ = 0;
    bool ended_ = false;
};

}  // namespace keyview::ctl
