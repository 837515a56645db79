// What the failure of a call to a member of the cluster means: whether another try is worth it, and
// what a person should do.
#ifndef KEYVIEW_CLUSTER_CALL_FAILURE_H
#define KEYVIEW_CLUSTER_CALL_FAILURE_H

#include <grpcpp/support/status.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "host/support/error.h"

namespace keyview::host {

// A failure that a caller may know how to go on from.
enum class etcd_reason {
    none,
    lease_gone,    // the lease is not there any more
    lease_exists,  // it was granted already
    compacted,     // the revision that was asked for is forgotten
    no_space,      // the database is full: it takes no puts and no leases
};

class etcd_error : public host_error {
  public:
    etcd_error(failure what_kind, etcd_reason why, const std::string &text,
               int64_t its_revision = 0)
        : host_error(what_kind, text), reason(why), revision(its_revision) {}

    etcd_reason reason;
    int64_t revision;  // with compacted: the oldest that a read may be of
};

enum class verdict { final, next_member, log_in };

struct judgement {
    std::string_view part;  // of the server's text
    verdict act;
    failure kind;
    etcd_reason reason;
    const char *what_to_do;
};

judgement judge(const grpc::Status &status);

// A cause in few words, of which this is one: then nothing was sent.
constexpr const char *REFUSED = "connection refused";
std::string cause_of(const grpc::Status &status);

}  // namespace keyview::host

#endif
