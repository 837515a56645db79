// The leases of a session, and their entries.
#include "cluster/session.h"

#include <sys/random.h>

namespace keyview::host {

// How long a release may take: longer than an election, because other programs wait for it.
static constexpr std::chrono::milliseconds RELEASE{4000};

// How long the revocation of an unused lease may take.
static constexpr std::chrono::milliseconds CLEANUP{1500};

static int64_t random_number() {
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) != sizeof(number)) {
        throw host_error(failure::internal, "the system returns no random numbers");
    }
    return static_cast<int64_t>(number >> 1 | 1);
}

session::session(const cluster_settings &settings) : calls_(settings), keys_(settings.prefix) {}

session::~session() {
    if (!calls_.of_this_process()) return;
    for (const std::shared_ptr<lease> &one : leases_->all)
        if (lives(*one)) revoke(one.get(), CLEANUP);
}

std::string session::unique_name() {
    static std::atomic<uint32_t> latest{0};
    return std::to_string(random_number()) + "-" + std::to_string(++latest);
}

wire::TxnResponse session::txn(const wire::TxnRequest &request, steady::time_point end,
                               bool *repeated) {
    keep_alive();
    return calls_.txn(request, end, repeated);
}

// ---- Leases -------------------------------------------------------------------------------------

// Adds the new entries in the same step: otherwise another thread could close and drop the lease in
// between, and it would not be kept alive. Null if a new lease is needed.
std::shared_ptr<session::lease> session::open_lease(size_t new_entries) {
    std::lock_guard guard(leases_->mutex);
    auto &all = leases_->all;
    bool usable = !all.empty() && !all.back()->closed && steady::now() < all.back()->end;
    if (!usable) return nullptr;
    all.back()->entries += new_entries;
    return all.back();
}

void session::require_lease(steady::time_point end) {
    std::lock_guard one_at_a_time(granting_);
    if (open_lease(0) != nullptr) return;
    drop_unused();
    auto fresh = std::make_shared<lease>();
    fresh->id = random_number();
    fresh->requested = steady::now();
    calls_.grant(fresh->id, calls_.settings().lease_ttl, end);
    fresh->end = fresh->requested + calls_.settings().lease_ttl;
    std::lock_guard guard(leases_->mutex);
    leases_->all.push_back(std::move(fresh));
}

std::shared_ptr<session::lease> session::add_entry(steady::time_point end) {
    std::shared_ptr<lease> found;
    while ((found = open_lease(1)) == nullptr)
        require_lease(end);
    return found;
}

bool session::lives(const lease &one) const {
    std::lock_guard guard(leases_->mutex);
    return steady::now() < one.end;
}

void session::close(lease *one) {
    std::lock_guard guard(leases_->mutex);
    one->closed = true;
}

void session::note_lost(lease *one) {
    std::lock_guard guard(leases_->mutex);
    one->closed = true;
    one->end = steady::time_point::min();
}

void session::keep_alive() {
    steady::time_point now = steady::now();
    auto part = std::chrono::duration_cast<steady::duration>(calls_.settings().lease_ttl) / 3;
    std::vector<std::shared_ptr<lease>> due;
    {
        std::lock_guard guard(leases_->mutex);
        for (const std::shared_ptr<lease> &one : leases_->all) {
            bool used = !one->closed || one->entries > 0;
            bool renewing = now < one->renewing_until;
            if (!used || renewing || now < one->requested + part || now >= one->end) continue;
            one->renewing_until = now + part;
            due.push_back(one);
        }
    }
    for (const std::shared_ptr<lease> &one : due) {
        calls_.keep_alive(one->id, [state = leases_, one, now](int64_t seconds) {
            std::lock_guard guard(state->mutex);
            if (now < one->requested) return;  // a later one was answered first
            one->renewing_until = {};
            if (seconds < 0) return;
            one->requested = now;
            one->end =
                seconds == 0 ? steady::time_point::min() : now + std::chrono::seconds(seconds);
        });
    }
}

// ---- Entries ------------------------------------------------------------------------------------

void session::revoke(lease *one, std::chrono::milliseconds wait) noexcept {
    note_lost(one);
    try {
        calls_.revoke(one->id, steady::now() + wait);
    } catch (const std::exception &) {
        return;  // it ends by itself
    }
}

// Drops the leases without entries, none of which is open, and revokes those that still live.
void session::drop_unused() {
    std::vector<std::shared_ptr<lease>> unused;
    {
        std::lock_guard guard(leases_->mutex);
        auto &all = leases_->all;
        auto first = std::stable_partition(all.begin(), all.end(),
                                           [](const auto &one) { return one->entries > 0; });
        unused.assign(first, all.end());
        all.erase(first, all.end());
    }
    for (const std::shared_ptr<lease> &one : unused)
        if (lives(*one)) revoke(one.get(), CLEANUP);
}

// Returns whether the lease is to be revoked with it.
bool session::drop_entry(lease *its) noexcept {
    std::lock_guard guard(leases_->mutex);
    return --its->entries == 0 && its->closed;
}

void session::release(const std::string &entry, const std::shared_ptr<lease> &its) noexcept {
    if (!calls_.of_this_process()) return;  // it is the parent's
    if (drop_entry(its.get())) return revoke(its.get(), RELEASE);
    try {
        wire::TxnRequest request;
        add_delete(request.mutable_success(), {entry, ""});
        (void)calls_.txn(request, steady::now() + RELEASE);  // its result is not needed
    } catch (const std::exception &) {
        close(its.get());
    }
}

// The next lock needs a new lease and revokes this one first.
void session::release_unknown(const std::shared_ptr<lease> &its) noexcept {
    if (!calls_.of_this_process()) return;
    close(its.get());
    (void)drop_entry(its.get());  // not revoked now: the cluster does not answer
}

}  // namespace keyview::host
