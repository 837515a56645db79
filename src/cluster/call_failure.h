// The meaning of a failed call to a member of the cluster: whether to try again, and the remedy for
// an administrator.
#pragma once

#include <grpcpp/support/status.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/support/error.h"

namespace keyview::host {

// Failures that callers handle.
enum class etcd_reason {
    none,
    lease_gone,    // the lease does not exist any more
    lease_exists,  // it was granted already
    compacted,     // the revision to read is no longer kept
    no_space,      // the database is full: it takes no puts and no leases
};

class etcd_error : public host_error {
  public:
    etcd_error(failure what_kind, etcd_reason why, const std::string &text,
               int64_t its_revision = 0)
        : host_error(what_kind, text), reason(why), revision(its_revision) {}

    etcd_reason reason;
    int64_t revision;  // with compacted: the oldest that can be read
};

enum class reaction { final, next_member, log_in };

struct failure_rule {
    std::string_view part;  // of the server's text
    reaction act;
    failure kind;
    etcd_reason reason;
    const char *remedy;
};

failure_rule rule_for(const grpc::Status &status);

// A short text of the cause. With REFUSED nothing was sent.
constexpr const char *REFUSED = "connection refused";
std::string cause_of(const grpc::Status &status);

}  // namespace keyview::host
