// The lease of a session, and the places that it gives up.
#include "host/cluster/session.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "host/support/fork.h"

namespace keyview::host {

// How long a release, or the end of a session, may take of a program's time.
static constexpr std::chrono::milliseconds FAREWELL{1500};

static int64_t random_number() {
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        throw host_error(failure::internal, "the system gives no random numbers");
    }
    return static_cast<int64_t>(number >> 1 | 1);
}

std::string this_process() {
    char host[256] = "";
    (void)gethostname(host, sizeof(host) - 1);
    return std::string(program_invocation_short_name) + ", process " + std::to_string(getpid()) +
           " on " + host;
}

session::session(const cluster_settings &settings)
    : calls_(settings), keys_(settings.prefix), generation_(fork_generation()) {}

session::~session() {
    if (generation_ != fork_generation()) return;
    int64_t id = 0;
    {
        std::lock_guard guard(lease_->mutex);
        std::swap(id, lease_->id);
    }
    if (id == 0) return;
    try {
        calls_.revoke(id, steady::now() + FAREWELL);
    } catch (const std::exception &) {
        return;  // it ends by itself
    }
}

std::string session::unique_name() {
    static std::atomic<uint32_t> latest{0};
    char name[32];
    (void)snprintf(name, sizeof(name), "%016llx-%x",
                   static_cast<unsigned long long>(random_number()), ++latest);
    return name;
}

wire::TxnResponse session::txn(const wire::TxnRequest &request, steady::time_point end) {
    keep_alive();
    return calls_.txn(request, end);
}

// ---- The lease ----------------------------------------------------------------------------------

int64_t session::lease(steady::time_point end) {
    std::lock_guard one_at_a_time(granting_);
    {
        std::lock_guard guard(lease_->mutex);
        if (lease_->id != 0 && steady::now() < lease_->end) return lease_->id;
    }
    int64_t fresh = random_number();
    steady::time_point asked = steady::now();
    calls_.grant(fresh, calls_.settings().lease_ttl, end);
    std::lock_guard guard(lease_->mutex);
    lease_->id = fresh;
    lease_->asked = asked;
    lease_->end = asked + calls_.settings().lease_ttl;
    return fresh;
}

bool session::lives(int64_t lease) const {
    std::lock_guard guard(lease_->mutex);
    return lease_->id == lease && steady::now() < lease_->end;
}

void session::note_lost(int64_t lease) {
    std::lock_guard guard(lease_->mutex);
    if (lease_->id == lease) lease_->id = 0;
}

void session::keep_alive() {
    std::chrono::seconds ttl = calls_.settings().lease_ttl;
    steady::time_point now = steady::now();
    int64_t id = 0;
    {
        std::lock_guard guard(lease_->mutex);
        bool due = lease_->id != 0 && !lease_->asking && now > lease_->asked + ttl / 3;
        if (!due) return;
        id = lease_->id;
        lease_->asking = true;
    }
    calls_.keep_alive(id, [state = lease_, id, now](int64_t seconds) {
        std::lock_guard guard(state->mutex);
        state->asking = false;
        if (state->id != id || seconds < 0) return;
        state->asked = now;
        state->end = now + std::chrono::seconds(seconds);
        if (seconds == 0) state->id = 0;
    });
}

// ---- Places -------------------------------------------------------------------------------------

static void remove_places(connection *calls, const std::vector<std::string> &places) {
    wire::TxnRequest request;
    for (const std::string &place : places)
        request.add_success()->mutable_request_delete_range()->set_key(place);
    (void)calls->txn(request, steady::now() + FAREWELL);  // only a failure is of interest
}

// Without memory for it, it ends with the lease.
void session::keep_for_later(const std::string &place) noexcept {
    try {
        std::lock_guard guard(left_mutex_);
        left_.push_back(place);
    } catch (const std::bad_alloc &) {
        return;
    }
}

void session::leave(const std::string &place) noexcept {
    if (generation_ != fork_generation()) return;  // it is the parent's
    try {
        remove_places(&calls_, {place});
    } catch (const std::exception &) {
        keep_for_later(place);
    }
}

void session::leave_the_rest() {
    static constexpr size_t MOST_AT_ONCE = 100;
    std::vector<std::string> places;
    {
        std::lock_guard guard(left_mutex_);
        places.swap(left_);
    }
    while (!places.empty()) {
        size_t first = places.size() - std::min(places.size(), MOST_AT_ONCE);
        std::vector<std::string> some(places.begin() + static_cast<ptrdiff_t>(first), places.end());
        places.resize(first);
        try {
            remove_places(&calls_, some);
        } catch (const std::exception &) {
            for (const auto *kept : {&some, &places}) {
                for (const std::string &place : *kept)
                    keep_for_later(place);
            }
            return;
        }
    }
}

}  // namespace keyview::host
