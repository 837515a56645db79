// The one table of failures.
#include "cluster/call_failure.h"

namespace keyview::host {

static constexpr judgement JUDGEMENTS[] = {
    {"requested lease not found", verdict::final, failure::lock, etcd_reason::lease_gone, ""},
    {"lease already exists", verdict::final, failure::registry, etcd_reason::lease_exists, ""},
    {"revision has been compacted", verdict::final, failure::changed, etcd_reason::compacted,
     "what was asked for is too old; start again"},
    {"database space exceeded", verdict::final, failure::registry, etcd_reason::no_space,
     "the database of the cluster is full (alarm NOSPACE): it can be read, but nothing can be "
     "written or locked; compact and defragment it, then disarm the alarm"},
    {"permission denied", verdict::final, failure::denied, etcd_reason::none,
     "the user of the login has no role that permits this"},
    {"invalid user ID or password", verdict::final, failure::denied, etcd_reason::none,
     "look at the file that KEYVIEW_CLUSTER_LOGIN names"},
    {"user name is empty", verdict::final, failure::denied, etcd_reason::none,
     "the cluster asks for a login: name a file with user:password in KEYVIEW_CLUSTER_LOGIN"},
    {"authentication is not enabled", verdict::final, failure::denied, etcd_reason::none,
     "the cluster knows no users: unset KEYVIEW_CLUSTER_LOGIN"},
    {"invalid auth token", verdict::log_in, failure::denied, etcd_reason::none,
     "the cluster refuses the login again and again"},
    {"revision of auth store is old", verdict::log_in, failure::denied, etcd_reason::none,
     "the users of the cluster change too fast"},
    {"corrupt", verdict::final, failure::content, etcd_reason::none,
     "the members of the cluster differ: repair the one that raised the alarm CORRUPT"},
    {"too many requests", verdict::next_member, failure::registry, etcd_reason::none, ""},
};

// Codes of gRPC for what another member, or the same a little later, may well do.
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

judgement judge(const grpc::Status &status) {
    for (const judgement &row : JUDGEMENTS) {
        if (status.error_message().find(row.part) != std::string::npos) return row;
    }
    if (status.error_code() == grpc::StatusCode::UNAUTHENTICATED) {
        return {"", verdict::log_in, failure::denied, etcd_reason::none, "the login is refused"};
    }
    verdict act = may_pass(status.error_code()) ? verdict::next_member : verdict::final;
    return {"", act, failure::registry, etcd_reason::none, ""};
}

// The end of a long chain of causes says most.
std::string cause_of(const grpc::Status &status) {
    if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) return "no answer";
    const std::string &text = status.error_message();
    if (text.find("Connection refused") != text.npos) return REFUSED;
    constexpr std::string_view LAST = "last error: ";
    size_t last = text.rfind(LAST);
    return last == text.npos ? text : text.substr(last + LAST.size());
}

}  // namespace keyview::host
