// The module for clusters over members that reply with any bytes: each of its works ends with a result
// or a failure of its own. In place of connection.cpp, which sends requests and parses what comes
// back, is what the input holds: a reply after the other, each behind two bytes with its kind and size.
#include "cluster/connection.h"

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "cluster/cluster.h"
#include "cluster/keepalives.h"
#include "host/registry/history.h"
#include "host/registry/snapshot.h"
#include "host/support/error.h"
#include "target.h"

namespace keyview::host {

// ---- Replies ------------------------------------------------------------------------------------

static std::string_view replies;  // what is left of the input

// The next reply, parsed; how it came is returned: 0 to 3. None is left: no member answers.
template <typename message>
static int take_reply(message *out) {
    if (replies.size() < 2)
        throw etcd_error(failure::registry, etcd_reason::none, "the cluster does not answer");
    const auto head = static_cast<unsigned char>(replies[0]);
    const size_t size = (head & 63U) << 8 | static_cast<unsigned char>(replies[1]);
    const std::string_view bytes = replies.substr(2, size);
    replies.remove_prefix(2 + bytes.size());
    if (!out->ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
        throw etcd_error(failure::registry, etcd_reason::none, "a reply that gRPC cannot parse");
    return head >> 6;
}

static void fail_as(int kind) {
    constexpr etcd_reason REASONS[] = {etcd_reason::lease_gone, etcd_reason::compacted};
    if (kind >= 2) throw etcd_error(failure::registry, REASONS[kind - 2], "a refusal", 7);
}

struct connection::member {};

connection::connection(const cluster_settings &settings) : settings_(settings), generation_(0) {}
connection::~connection() = default;

bool connection::of_this_process() const {
    return true;
}

// With the guarantee of the real one.
wire::TxnResponse connection::txn(const wire::TxnRequest &request, steady::time_point,
                                  bool *repeated) {
    wire::TxnResponse response;
    const int kind = take_reply(&response);
    fail_as(kind);
    if (repeated != nullptr && kind == 1) *repeated = true;
    if (!has_all_results(request, response))
        throw etcd_error(failure::registry, etcd_reason::none, "fewer results than requested");
    return response;
}

void connection::grant(int64_t, std::chrono::seconds, steady::time_point) {}
void connection::revoke(int64_t, steady::time_point) {}
void connection::keep_alive(int64_t, const std::function<void(int64_t)> &on_ttl) {
    on_ttl(10);
}
void connection::await_deletion(const std::string &, int64_t, steady::time_point) {}

std::optional<wire::Event> connection::next_change(const std::string &, int64_t,
                                                   steady::time_point) {
    wire::Event event;
    fail_as(take_reply(&event));
    return event;
}

wire::AlarmResponse connection::alarms(steady::time_point) {
    wire::AlarmResponse response;
    (void)take_reply(&response);
    return response;
}

wire::StatusResponse connection::status_of(size_t, steady::time_point) {
    wire::StatusResponse response;
    (void)take_reply(&response);
    return response;
}

void connection::follow(const wire::WatchCreateRequest &, steady::time_point,
                        const std::function<bool(const wire::WatchResponse &)> &sink) {
    for (wire::WatchResponse response; !replies.empty();) {
        fail_as(take_reply(&response));
        if (!sink(response)) return;
    }
}

}  // namespace keyview::host

// ---- Works --------------------------------------------------------------------------------------

using namespace keyview::host;
using model::reach;

namespace {

constexpr const char *ROOT = "DATABASE.DATABASES", *DATABASE = "DATABASE.DATABASES.sales",
                     *ROLE = "DATABASE.DATABASES.sales.ROLE",
                     *LOCK = "LKRT.DATABASE.DATABASES.sales";

template <typename work>
void attempt(work &&run) {
    try {
        run();
    } catch (const host_error &) {
    }
}

void copy(moment *now, const char *path, reach which) {
    snapshot out(path, which);
    std::string value;
    (void)now->read(path, &value);
    (void)now->copy(path, which, &out);
    (void)now->scan(
        path, which, [](auto, auto) {}, [](auto) {});
}

change put(const std::string &path) {
    return {change::kind::put, path, "v"};
}

void read_parts(const backend &registry) {
    copy(registry.keys->now().get(), DATABASE, reach::all_below);
    copy(registry.keys->now().get(), ROOT, reach::children);
}

void set_under_a_lock(const backend &registry) {
    const model::lock_cover part{DATABASE, reach::all_below};
    const auto held = registry.locks->acquire(LOCK, lock_mode::exclusive, 0, part);
    const auto granted = held->as_of_grant();
    if (granted != nullptr) copy(granted.get(), DATABASE, reach::all_below);
    std::string replaced;
    (void)registry.keys->set(ROLE, "PRIMARY", held.get(), &replaced);
    keyview::test::planted_fault(!replaced.empty() && replaced[0] != 'v');
    const std::vector<change> one = {put(ROLE)};
    (void)registry.keys->apply(one, {{held.get()}, 0});
}

void lock(const backend &registry) {
    (void)registry.locks->users({});
    (void)registry.locks->acquire(LOCK, lock_mode::shared, 0);
    (void)registry.locks->acquire_all(0);
}

void read_changes(const backend &registry) {
    registry.keys->history(0, [](const history_entry &) { return true; });
    (void)registry.keys->changes_since(ROOT, 1, std::chrono::milliseconds(1));
}

void apply_many(const backend &registry) {
    std::vector<change> many;
    for (int n = 0; n < 200; ++n)
        many.push_back(put("A.k" + std::to_string(n)));
    (void)registry.keys->apply(many);
}

void resume(const backend &registry) {
    (void)registry.keys->finish_apply(finish::resume);
}

void undo(const backend &registry) {
    (void)registry.keys->finish_apply(finish::undo);
}

constexpr void (*WORKS[])(const backend &registry) = {
    read_parts, set_under_a_lock, lock, read_changes, apply_many, resume, undo};

}  // namespace

// The first byte is the number of the work to begin with.
void keyview::test::one_input(std::string_view input) {
    if (input.empty()) return;
    const auto first = static_cast<unsigned char>(input[0]);
    replies = input.substr(1);
    attempt([first] {
        const backend registry =
            KEYVIEW_BACKEND_KIND.open("etcd://member:1/x", open_mode::existing);
        for (size_t n = 0; n < std::size(WORKS); ++n)
            attempt([&] { WORKS[(first + n) % std::size(WORKS)](registry); });
    });
}
