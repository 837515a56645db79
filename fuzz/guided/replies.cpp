// The module for clusters over members that reply with any bytes: each of its works ends with a result
// or a failure of its own. In place of connection.cpp, which sends requests and parses what comes
// back, is what the input holds: a reply after the other, each behind two bytes with its kind and size.
// Inputs are changed within their fields, so that most of them can still be parsed.
#include "cluster/connection.h"

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "cluster/cluster.h"
#include "cluster/keepalives.h"
#include "host/registry/history.h"
#include "host/registry/snapshot.h"
#include "host/support/error.h"
#include "target.h"

namespace keyview::host {

// ---- Replies ------------------------------------------------------------------------------------

static std::string_view replies;  // what is left of the input

struct raw_reply {
    int kind;  // how it came: 0 to 3
    std::string_view bytes;
};

// Removes the next reply from the rest.
static std::optional<raw_reply> next_reply(std::string_view *rest) {
    if (rest->size() < 2) return std::nullopt;
    const auto head = static_cast<unsigned char>((*rest)[0]);
    const size_t size = (head & 63U) << 8 | static_cast<unsigned char>((*rest)[1]);
    const std::string_view bytes = rest->substr(2, size);
    rest->remove_prefix(2 + bytes.size());
    return raw_reply{head >> 6, bytes};
}

// The next reply, parsed; how it came is returned. None is left: no member answers.
template <typename message>
static int take_reply(message *out) {
    const auto next = next_reply(&replies);
    if (!next)
        throw etcd_error(failure::registry, etcd_reason::none, "the cluster does not answer");
    if (!out->ParseFromArray(next->bytes.data(), static_cast<int>(next->bytes.size())))
        throw etcd_error(failure::registry, etcd_reason::none, "a reply that gRPC cannot parse");
    return next->kind;
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
    keyview::test::planted_fault(!value.empty() && value[0] != 'v');
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
            KEYVIEW_BACKEND_KIND.open("etcd://member:1/x0", open_mode::existing);
        for (size_t n = 0; n < std::size(WORKS) && !replies.empty(); ++n)
            attempt([&] { WORKS[(first + n) % std::size(WORKS)](registry); });
    });
}

// ---- Changes of inputs --------------------------------------------------------------------------

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t max_size);

namespace {

constexpr size_t MOST_BYTES = 16383;  // of a reply

std::string changed_bytes(std::string_view bytes) {
    std::string room(bytes);
    room.resize(bytes.size() + 64);
    room.resize(
        LLVMFuzzerMutate(reinterpret_cast<uint8_t *>(room.data()), bytes.size(), room.size()));
    return room;
}

std::string varint(uint64_t value) {
    std::string out;
    for (; value > 127; value >>= 7)
        out += static_cast<char>(value | 128);
    return out + static_cast<char>(value);
}

bool take_varint(std::string_view *rest, uint64_t *value) {
    *value = 0;
    for (unsigned shift = 0; shift < 64 && !rest->empty(); shift += 7) {
        const auto byte = static_cast<unsigned char>(rest->front());
        rest->remove_prefix(1);
        *value |= uint64_t{byte & 127U} << shift;
        if (byte < 128) return true;
    }
    return false;
}

struct field {
    std::string head;  // the tag, and the size if there is content
    std::string_view content;
    bool sized;
};

// The fields of a message that has varints and sized fields only; none if the bytes are another one.
std::vector<field> fields_of(std::string_view message) {
    std::vector<field> all;
    while (!message.empty()) {
        uint64_t tag = 0, value = 0;
        if (!take_varint(&message, &tag) || tag < 8 || !take_varint(&message, &value)) return {};
        const bool sized = (tag & 7) == 2;
        if ((!sized && (tag & 7) != 0) || (sized && value > message.size())) return {};
        all.push_back({varint(tag), message.substr(0, sized ? value : 0), sized});
        if (!sized) all.back().head += varint(value);
        message.remove_prefix(all.back().content.size());
    }
    return all;
}

// One field of any depth is changed, repeated or left out, and the sizes around it.
std::string changed_message(std::string_view message, std::minstd_rand *random) {
    const std::vector<field> all = fields_of(message);
    if (all.empty() || (*random)() % 32 == 0) return changed_bytes(message);
    const size_t one = (*random)() % all.size(), what = (*random)() % 16;
    std::string out;
    for (size_t n = 0; n < all.size(); ++n) {
        std::string content(all[n].content);
        std::string head = all[n].head;
        if (n == one && what > 1) {
            if (all[n].sized)
                content = changed_message(content, random);
            else
                head = head.substr(0, 1) + varint((*random)() % 300);
        }
        if (all[n].sized) head += varint(content.size());
        const size_t copies = n != one || what > 1 ? 1 : what * 2;
        for (size_t copy = 0; copy < copies; ++copy)
            out += head + content;
    }
    return out;
}

}  // namespace

// Called by the fuzzer in the place of its own changes.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t max_size,
                                          unsigned seed) {
    std::minstd_rand random(seed);
    if (size == 0 || random() % 16 == 0) return LLVMFuzzerMutate(data, size, max_size);
    std::string_view rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    std::vector<raw_reply> all;
    while (const auto next = next_reply(&rest))
        all.push_back(*next);
    if (all.empty()) return LLVMFuzzerMutate(data, size, max_size);
    const size_t one = random() % all.size(), what = random() % 16;
    std::string out(1, static_cast<char>(data[0]));
    for (size_t n = 0; n < all.size(); ++n) {
        int kind = all[n].kind;
        std::string bytes(all[n].bytes);
        if (n == one && what == 0) continue;
        if (n == one && what == 1) kind = static_cast<int>(random() % 4);
        if (n == one && what > 1) bytes = changed_message(bytes, &random);
        bytes.resize(std::min(bytes.size(), MOST_BYTES));
        out += static_cast<char>(kind << 6 | static_cast<int>(bytes.size() >> 8));
        out += static_cast<char>(bytes.size());
        out += bytes;
    }
    out.resize(std::min(out.size(), max_size));
    std::copy(out.begin(), out.end(), data);
    return out.size();
}
