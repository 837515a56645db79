// See followers.h.
#include "ctl/serve/followers.h"

#include <algorithm>
#include <cstring>

#include "ctl/serve/http_library.h"

namespace keyview::ctl {

// One client, owned by its answer.
struct follower {
    follower_ring *ring;
    MHD_Connection *connection;
    uint64_t next, revision, heartbeats;
    std::string text;  // that is not sent yet, from offset on
    size_t offset = 0;

    bool refill();
    ssize_t read(char *out, size_t size);
};

static std::string event_text(const char *event, uint64_t revision, const std::string &data) {
    return "id: " + std::to_string(revision) + "\nevent: " + event + "\ndata: " + data + "\n\n";
}

static std::string gap_text(uint64_t since, uint64_t revision) {
    return event_text("gap", revision,
                      "{\"kind\":\"gap\",\"version\":1,\"since\":" + std::to_string(since) +
                          ",\"revision\":" + std::to_string(revision) + "}");
}

// Under the lock of the ring: the next events, as far as there are some.
bool follower::refill() {
    text.clear();
    offset = 0;
    const uint64_t end = ring->first_ + ring->events_.size();
    if (next < ring->first_) {  // it was too slow
        text = gap_text(revision,
                        ring->events_.empty() ? ring->revision_ : ring->events_.front().revision);
        next = ring->first_;
    } else if (next < end) {
        const follower_ring::stored_event &one = ring->events_[next - ring->first_];
        text = one.text;
        revision = one.revision;
        ++next;
    } else if (heartbeats != ring->heartbeats_) {
        text = ":\n\n";
    }
    heartbeats = ring->heartbeats_;
    return !text.empty();
}

// The thread of the server calls this, for as much as it can send.
ssize_t follower::read(char *out, size_t size) {
    const std::lock_guard guard(ring->mutex_);
    if (offset == text.size() && !refill()) {
        if (ring->ended_) return MHD_CONTENT_READER_END_OF_STREAM;
        http().suspend_connection(connection);
        ring->waiting_.insert(connection);
        return 0;
    }
    const size_t part = std::min(size, text.size() - offset);
    memcpy(out, text.data() + offset, part);
    offset += part;
    return static_cast<ssize_t>(part);
}

MHD_Response *follower_ring::follow(MHD_Connection *connection) {
    const std::lock_guard guard(mutex_);
    auto *client = new follower{
        this,
        connection,
        first_ + events_.size(),
        revision_,
        heartbeats_,
        "retry: 2000\n" + event_text("revision", revision_, std::to_string(revision_))};
    auto read = [](void *arg, uint64_t, char *out, size_t size) {
        return static_cast<follower *>(arg)->read(out, size);
    };
    auto release = [](void *arg) {
        auto *gone = static_cast<follower *>(arg);
        follower_ring *ring = gone->ring;
        {
            const std::lock_guard guard_of_ring(ring->mutex_);
            ring->waiting_.erase(gone->connection);
            --ring->followers_;
        }
        delete gone;
    };
    MHD_Response *made =
        http().create_response_from_callback(MHD_SIZE_UNKNOWN, 4096, read, client, release);
    if (made == nullptr) {
        delete client;
    } else {
        ++followers_;
    }
    return made;
}

// Under the lock.
void follower_ring::wake() {
    for (MHD_Connection *one : waiting_)
        http().resume_connection(one);
    waiting_.clear();
}

void follower_ring::publish(const char *event, uint64_t revision, const std::string &data) {
    const std::lock_guard guard(mutex_);
    std::string text = event_text(event, revision, data);
    if (text.size() > LARGEST_EVENT) text = gap_text(revision_, revision);
    events_.push_back({revision, std::move(text)});
    revision_ = revision;
    if (events_.size() > MOST_EVENTS) {
        events_.pop_front();
        ++first_;
    }
    wake();
}

void follower_ring::send_heartbeat() {
    const std::lock_guard guard(mutex_);
    ++heartbeats_;
    wake();
}

void follower_ring::end() {
    const std::lock_guard guard(mutex_);
    ended_ = true;
    wake();
}

size_t follower_ring::count() const {
    const std::lock_guard guard(mutex_);
    return followers_;
}

}  // namespace keyview::ctl
