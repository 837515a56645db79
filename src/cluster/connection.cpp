// Calls over gRPC, their tries and their failures.
#include "cluster/connection.h"

#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <thread>
#include <type_traits>
#include <utility>

#include "cluster/call_failure.h"
#include "cluster/etcd.grpc.pb.h"
#include "cluster/keepalives.h"
#include "cluster/tls_probe.h"
#include "host/support/fork.h"
#include "model/secret.h"

namespace keyview::host {

using std::chrono::milliseconds;

// The first tries are short, so that a dead member costs little; later ones grow with the time spent,
// so that a slow cluster can answer.
static constexpr milliseconds SHORTEST_TRY{300};
static constexpr milliseconds LONGEST_TRY{5000};
static constexpr int TRY_PART = 5;  // of the time spent

// A member that answers may take long for a login: the hash of a password is slow on purpose. It goes
// on with a hash whose caller gave up, so a further try at the same member only makes it slower.
static constexpr steady::duration SHORTEST_LOGIN_TRY = std::chrono::seconds(1);

static constexpr milliseconds PAUSE{50};        // after a round in which all members failed
static constexpr milliseconds LAST_CHECK{200};  // of each member, for the text of the failure

static constexpr int RECONNECT_MS = 100;
static constexpr int LONGEST_RECONNECT_MS = 1000;

// ---- Forks --------------------------------------------------------------------------------------

namespace {

// gRPC runs threads, which a forked child does not inherit.
std::atomic<uint64_t> used_by_generation{0};

host_error inherited() {
    return {failure::registry,
            "this process was forked from one that uses the cluster and cannot go on with its "
            "connections: let it exec, or open the cluster in the child alone"};
}

uint64_t begin_use() {
    uint64_t mine = fork_generation();
    uint64_t before = 0;
    if (!used_by_generation.compare_exchange_strong(before, mine) && before != mine) {
        throw inherited();
    }
    return mine;
}

std::shared_ptr<grpc::ChannelCredentials> credentials_of(const cluster_settings &settings) {
    if (!settings.tls) return grpc::InsecureChannelCredentials();
    grpc::SslCredentialsOptions options;
    const model::cleared_at_end clears(
        &options.pem_private_key);  // gRPC keeps a copy, for new handshakes
    options.pem_root_certs = file_text(settings.ca_file, CA_VARIABLE, false);
    if (!settings.cert_file.empty()) {
        options.pem_cert_chain = file_text(settings.cert_file, CERT_VARIABLE, false);
        options.pem_private_key = file_text(settings.key_file, KEY_VARIABLE, true);
    }
    return grpc::SslCredentials(options);
}

// The same time for gRPC, by the same clock: a step of the clock of the day does not move it.
gpr_timespec deadline_at(steady::time_point end) {
    const auto since_start = std::chrono::nanoseconds(end.time_since_epoch()).count();
    return gpr_time_from_nanos(since_start, GPR_CLOCK_MONOTONIC);
}

std::unique_ptr<grpc::ClientContext> context_of(steady::time_point end, const std::string &token) {
    auto context = std::make_unique<grpc::ClientContext>();
    context->set_deadline(deadline_at(end));
    if (!token.empty()) context->AddMetadata("token", token);
    return context;
}

}  // namespace

// ---- Members ------------------------------------------------------------------------------------

static grpc::ChannelArguments channel_options() {
    grpc::ChannelArguments options;
    options.SetMaxReceiveMessageSize(-1);  // the list of all databases may be large
    options.SetMaxSendMessageSize(-1);
    options.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    options.SetInt(GRPC_ARG_ENABLE_HTTP_PROXY, 0);
    options.SetInt(GRPC_ARG_INITIAL_RECONNECT_BACKOFF_MS, RECONNECT_MS);
    options.SetInt(GRPC_ARG_MIN_RECONNECT_BACKOFF_MS, LONGEST_RECONNECT_MS);
    options.SetInt(GRPC_ARG_MAX_RECONNECT_BACKOFF_MS, LONGEST_RECONNECT_MS);
    return options;
}

struct connection::member {
    std::string name;
    std::shared_ptr<grpc::Channel> channel;
    wire::KV::Stub keys{channel};
    wire::Lease::Stub leases{channel};
    wire::Watch::Stub watches{channel};
    wire::Auth::Stub users{channel};
    wire::Maintenance::Stub operation{channel};
};

// ---- Connections --------------------------------------------------------------------------------

connection::connection(const cluster_settings &settings)
    : settings_(settings), generation_(begin_use()), keepalives_(std::make_unique<keepalives>()) {
    std::shared_ptr<grpc::ChannelCredentials> credentials = credentials_of(settings_);
    for (const std::string &name : settings_.members)
        members_.emplace_back(new member{
            name, grpc::CreateCustomChannel("dns:///" + name, credentials, channel_options())});
}

// A forked child must not touch the connections of its parent.
connection::~connection() {
    if (of_this_process()) return;
    (void)keepalives_.release();
    for (std::unique_ptr<member> &one : members_)
        (void)one.release();
}

bool connection::of_this_process() const {
    return generation_ == fork_generation();
}

void connection::next_member(size_t after) {
    current_.compare_exchange_strong(after, (after + 1) % members_.size());
}

// ---- Tries --------------------------------------------------------------------------------------

std::string connection::token() {
    std::lock_guard guard(token_mutex_);
    return token_;
}

// Replaces a token that was refused, unless another thread did. Reads the file anew: the password
// may have been changed.
void connection::log_in(const std::string &refused, steady::time_point end) {
    if (settings_.login_file.empty()) return;
    std::unique_lock one_at_a_time(login_mutex_, end);
    if (token() != refused) return;
    std::string text = file_text(settings_.login_file, LOGIN_VARIABLE, true);
    const model::cleared_at_end clears_file(&text);
    text.resize(std::min(text.find_first_of("\r\n"), text.size()));
    size_t colon = text.find(':');
    if (colon == text.npos) {
        throw host_error(failure::usage, "the file " + settings_.login_file + " that " +
                                             LOGIN_VARIABLE + " names does not hold user:password");
    }
    wire::AuthenticateRequest request;
    const model::cleared_at_end clears_request(request.mutable_password());
    request.set_name(text.data(), colon);
    request.mutable_password()->assign(text, colon + 1);
    wire::AuthenticateResponse response;
    call(&member::users, &wire::Auth::Stub::Authenticate, request, &response, end);
    std::lock_guard guard(token_mutex_);
    token_ = response.token();
}

// The failure of a call that a member refuses for a reason of the call.
static etcd_error refusal(const std::string &member, const grpc::Status &status) {
    failure_rule row = rule_for(status);
    std::string remedy = row.remedy[0] == '\0' ? "" : std::string(": ") + row.remedy;
    return {row.kind, row.reason, member + " refuses: " + status.error_message() + remedy};
}

// Waits for the connection, which gRPC establishes only while a caller waits. After a failure gRPC
// tries again a little later: the caller gives up or waits for that, too.
enum class after_failure { give_up, wait };

// Returns whether the member answered.
static bool connect(grpc::Channel *channel, steady::time_point end, after_failure then) {
    for (bool waits = true; waits;) {
        grpc_connectivity_state state = channel->GetState(true);
        if (state == GRPC_CHANNEL_READY) return true;
        if (state == GRPC_CHANNEL_TRANSIENT_FAILURE && then == after_failure::give_up) break;
        waits = channel->WaitForStateChange(state, deadline_at(end));
    }
    return false;
}

// A call waits for the login that it needs.
template <typename service, typename method, typename question, typename answer>
void connection::call(service member::*stub, method rpc, const question &asked, answer *response,
                      steady::time_point end, bool *repeated) {
    if (!of_this_process()) throw inherited();
    constexpr bool is_login = std::is_same_v<question, wire::AuthenticateRequest>;
    const steady::time_point start = steady::now();
    std::vector<std::string> failures(members_.size());
    for (size_t failed = 0, logins = 0;;) {
        if (!is_login && token().empty()) log_in("", end);
        const std::string used = is_login ? "" : token();
        size_t at = current_.load();
        const steady::time_point now = steady::now();
        auto longest =
            std::clamp<steady::duration>((now - start) / TRY_PART, SHORTEST_TRY, LONGEST_TRY);
        bool answers = connect(members_[at]->channel.get(), std::min(end, now + longest),
                               after_failure::give_up);
        if (is_login && answers) {
            longest = members_.size() == 1 ? end - now : std::max(now - start, SHORTEST_LOGIN_TRY);
        }
        auto context = context_of(std::min(end, now + longest), used);
        ++round_trips_;
        grpc::Status status = ((*members_[at]).*stub.*rpc)(context.get(), asked, response);
        if (status.ok()) return;
        const reaction act = rule_for(status).act;
        bool is_late = steady::now() + PAUSE >= end;
        if (act == reaction::log_in && !used.empty() && !is_late) {
            if (logins++ > 0) std::this_thread::sleep_for(PAUSE);  // the member is behind
            log_in(used, end);
            continue;
        }
        if (act == reaction::final || (act == reaction::log_in && !is_login)) {
            throw refusal(members_[at]->name, status);
        }
        failures[at] = cause_of(status);
        if (repeated != nullptr && failures[at] != REFUSED) *repeated = true;
        next_member(at);
        bool all_failed = ++failed % members_.size() == 0;
        bool tls = (is_late || all_failed) && find_tls_faults(&failures);
        if (is_late || tls) {
            throw etcd_error(failure::registry, etcd_reason::none, no_answer_text(failures, tls));
        }
        if (all_failed) {
            connect(members_[current_.load()]->channel.get(), steady::now() + PAUSE,
                    after_failure::wait);
        }
    }
}

// Replaces the failures that TLS may have caused by the faults that a probe finds. Returns whether
// every member has such a fault: then no further try can succeed.
bool connection::find_tls_faults(std::vector<std::string> *failures) const {
    size_t faults = 0;
    for (size_t at = 0; at < members_.size(); ++at) {
        std::string &text = (*failures)[at];
        bool ended = false;
        for (const char *part : {"andshake", "ertificate", "Endpoint read failed", "ocket closed"})
            ended = ended || text.find(part) != text.npos;
        if (!ended) continue;
        tls_facts seen = probe_tls(settings_, members_[at]->name, LAST_CHECK);
        if (seen.fault.empty()) continue;
        text = seen.fault;
        ++faults;
    }
    return faults == members_.size();
}

std::string connection::no_answer_text(const std::vector<std::string> &failures, bool tls) {
    std::string text = "the cluster does not answer:";
    size_t without_leader = 0;
    steady::time_point end = steady::now() + LAST_CHECK;
    for (size_t at = 0; at < members_.size(); ++at) {
        std::string why = failures[at].empty() ? "was not tried" : failures[at];
        bool leaderless = false;
        try {
            bool connected = members_[at]->channel->GetState(false) == GRPC_CHANNEL_READY;
            leaderless = connected && status_of(at, end).leader() == 0;
        } catch (const etcd_error &) {
            leaderless = false;  // its failure is in the list already
        }
        if (leaderless) why = "has no leader";
        without_leader += leaderless;
        text += (at == 0 ? " " : "; ") + members_[at]->name + ": " + why;
    }
    if (tls) return text;
    return text + (without_leader > 0
                       ? ". More than half of the members must run and reach each other"
                       : ". See that its members run: keyviewctl doctor");
}

// ---- Calls --------------------------------------------------------------------------------------

wire::TxnResponse connection::txn(const wire::TxnRequest &request, steady::time_point end,
                                  bool *repeated) {
    wire::TxnResponse response;
    call(&member::keys, &wire::KV::Stub::Txn, request, &response, end, repeated);
    if (!has_all_results(request, response)) {
        throw etcd_error(failure::registry, etcd_reason::none,
                         "the cluster returned fewer results than requested");
    }
    return response;
}

void connection::grant(int64_t lease, std::chrono::seconds ttl, steady::time_point end) {
    wire::LeaseGrantRequest request;
    request.set_id(lease);
    request.set_ttl(ttl.count());
    wire::LeaseGrantResponse response;
    try {
        call(&member::leases, &wire::Lease::Stub::LeaseGrant, request, &response, end);
    } catch (const etcd_error &error) {
        if (error.reason != etcd_reason::lease_exists) throw;  // else an earlier try made it
    }
}

void connection::revoke(int64_t lease, steady::time_point end) {
    wire::LeaseRevokeRequest request;
    request.set_id(lease);
    wire::LeaseRevokeResponse response;
    call(&member::leases, &wire::Lease::Stub::LeaseRevoke, request, &response, end);
}

wire::AlarmResponse connection::alarms(steady::time_point end) {
    wire::AlarmResponse response;
    call(&member::operation, &wire::Maintenance::Stub::Alarm, wire::AlarmRequest(), &response, end);
    return response;
}

wire::StatusResponse connection::status_of(size_t at, steady::time_point end) {
    if (!of_this_process()) throw inherited();
    auto context = context_of(end, token());
    wire::StatusResponse response;
    connect(members_.at(at)->channel.get(), end, after_failure::wait);
    ++round_trips_;
    grpc::Status status = members_[at]->operation.Status(context.get(), {}, &response);
    if (!status.ok()) {
        throw etcd_error(failure::registry, etcd_reason::none, cause_of(status));
    }
    return response;
}

// ---- Keepalives ---------------------------------------------------------------------------------

void connection::keep_alive(int64_t lease, const std::function<void(int64_t)> &on_ttl) {
    if (!of_this_process()) throw inherited();
    size_t at = current_.load();
    auto answer = [this, at, on_ttl](int64_t ttl) {
        if (ttl < 0) next_member(at);
        on_ttl(ttl);
    };
    steady::time_point end = steady::now() + settings_.lease_ttl / 3;
    keepalives_->start(members_[at]->channel, context_of(end, token()), lease, answer);
}

// ---- Watches ------------------------------------------------------------------------------------

void connection::follow_once(const wire::WatchCreateRequest &what, steady::time_point end,
                             const std::function<bool(const wire::WatchResponse &)> &sink) {
    if (!of_this_process()) throw inherited();
    size_t at = current_.load();
    auto context = context_of(end, token());
    connect(members_[at]->channel.get(), std::min(end, steady::now() + SHORTEST_TRY),
            after_failure::give_up);
    ++round_trips_;
    auto stream = members_[at]->watches.Watch(context.get());
    wire::WatchRequest request;
    *request.mutable_create_request() = what;
    bool stopped = false;
    wire::WatchResponse response;
    for (bool alive = stream->Write(request); alive && !stopped && stream->Read(&response);) {
        stopped = response.canceled();
        if (response.events_size() > 0) stopped = !sink(response);
    }
    context->TryCancel();
    grpc::Status status = stream->Finish();
    if (response.compact_revision() > 0) {
        throw etcd_error(failure::changed, etcd_reason::compacted,
                         "the cluster keeps its changes from revision " +
                             std::to_string(response.compact_revision()) + " on only",
                         response.compact_revision());
    }
    if (response.canceled()) {
        throw refusal(members_[at]->name,
                      {grpc::StatusCode::FAILED_PRECONDITION, response.cancel_reason()});
    }
    if (stopped || steady::now() >= end) return;
    next_member(at);
    throw etcd_error(failure::registry, etcd_reason::none,
                     members_[at]->name + ": " + cause_of(status));
}

// A member that was restarted has lost its tokens.
void connection::follow(const wire::WatchCreateRequest &what, steady::time_point end,
                        const std::function<bool(const wire::WatchResponse &)> &sink) {
    const std::string used = token();
    try {
        follow_once(what, end, sink);
    } catch (const etcd_error &error) {
        if (error.kind != failure::denied || settings_.login_file.empty()) throw;
        log_in(used, answer_end());
        follow_once(what, end, sink);
    }
}

std::optional<wire::Event> connection::next_change(const std::string &key, int64_t after_revision,
                                                   steady::time_point end) {
    wire::WatchCreateRequest what;
    what.set_key(key);
    what.set_start_revision(after_revision + 1);
    std::optional<wire::Event> next;
    follow(what, end, [&](const wire::WatchResponse &seen) {
        next = seen.events(0);
        return false;
    });
    return next;
}

void connection::await_deletion(const std::string &key, int64_t after_revision,
                                steady::time_point end) {
    wire::WatchCreateRequest what;
    what.set_key(key);
    what.set_start_revision(after_revision + 1);
    auto is_deletion = [](const wire::WatchResponse &response) {
        return std::any_of(
            response.events().begin(), response.events().end(),
            [](const wire::Event &event) { return event.type() == wire::Event::DELETE; });
    };
    try {
        follow(what, end, [&](const wire::WatchResponse &seen) { return !is_deletion(seen); });
    } catch (const etcd_error &) {
        std::this_thread::sleep_for(PAUSE);  // the caller reads the queue again
    }
}

}  // namespace keyview::host
