// The one table of failures.
#include "cluster/call_failure.h"

namespace keyview::host {

static constexpr failure_rule RULES[] = {
    {"requested lease not found", reaction::final, failure::lock, etcd_reason::lease_gone, ""},
    {"lease already exists", reaction::final, failure::registry, etcd_reason::lease_exists, ""},
    {"revision has been compacted", reaction::final, failure::changed, etcd_reason::compacted,
     "the revision to read is no longer kept; start again"},
    {"database space exceeded", reaction::final, failure::registry, etcd_reason::no_space,
     "the database of the cluster is full (alarm NOSPACE): it can be read, but nothing can be "
     "written or locked; compact and defragment it, then disarm the alarm"},
    {"permission denied", reaction::final, failure::denied, etcd_reason::none,
     "the user of the login has no role that permits this"},
    {"invalid user ID or password", reaction::final, failure::denied, etcd_reason::none,
     "check the user and the password in the file that KEYVIEW_CLUSTER_LOGIN names"},
    {"user name is empty", reaction::final, failure::denied, etcd_reason::none,
     "the cluster requires a login: name a file with user:password in KEYVIEW_CLUSTER_LOGIN"},
    {"authentication is not enabled", reaction::final, failure::denied, etcd_reason::none,
     "authentication is off in the cluster: unset KEYVIEW_CLUSTER_LOGIN"},
    {"invalid auth token", reaction::log_in, failure::denied, etcd_reason::none,
     "the members refuse new tokens, too: check their setting auth-token"},
    {"revision of auth store is old", reaction::log_in, failure::denied, etcd_reason::none,
     "users or roles are being changed: try again"},
    {"corrupt", reaction::final, failure::content, etcd_reason::none,
     "the members of the cluster differ: repair the one that raised the alarm CORRUPT"},
    {"too many requests", reaction::next_member, failure::registry, etcd_reason::none, ""},
};

// Codes of gRPC after which another member, or the same one a little later, may succeed.
static bool may_pass(grpc::StatusCode code) {
    switch (code) {
        case grpc::StatusCode::UNAVAILABLE:
        case grpc::StatusCode::DEADLINE_EXCEEDED:
        case grpc::StatusCode::UNKNOWN:  // the proposal was dropped
        case grpc::StatusCode::ABORTED:
        case grpc::StatusCode::CANCELLED:
        case grpc::StatusCode::INTERNAL:  // of the stream
            return true;
        default:
            return false;
    }
}

failure_rule rule_for(const grpc::Status &status) {
    for (const failure_rule &row : RULES) {
        if (status.error_message().find(row.part) != std::string::npos) return row;
    }
    if (status.error_code() == grpc::StatusCode::UNAUTHENTICATED) {
        return {"", reaction::log_in, failure::denied, etcd_reason::none, "the login is refused"};
    }
    reaction act = may_pass(status.error_code()) ? reaction::next_member : reaction::final;
    return {"", act, failure::registry, etcd_reason::none, ""};
}

// gRPC chains causes; the last one is the most specific.
std::string cause_of(const grpc::Status &status) {
    if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) return "no answer";
    const std::string &text = status.error_message();
    if (text.find("Connection refused") != text.npos) return REFUSED;
    constexpr std::string_view LAST = "last error: ";
    size_t last = text.rfind(LAST);
    return last == text.npos ? text : text.substr(last + LAST.size());
}

}  // namespace keyview::host
