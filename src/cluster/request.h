// The parts of transactions: conditions and operations.
#pragma once

#include <cstdint>
#include <string>

#include "cluster/etcd.pb.h"
#include "cluster/layout.h"

namespace keyview::host {

namespace wire = etcdserverpb;

using wire_ops = google::protobuf::RepeatedPtrField<wire::RequestOp>;

// Every key of the range was created at that revision; with 0 there is none.
void require_created(wire::TxnRequest *request, const key_range &range, int64_t revision);

// The key exists; was last changed at that revision; has that value, or with NOT_EQUAL
// another one.
void require_there(wire::TxnRequest *request, const std::string &key);
void require_changed(wire::TxnRequest *request, const std::string &key, int64_t revision);
void require_value(wire::TxnRequest *request, const std::string &key, const std::string &value,
                   wire::Compare::CompareResult result = wire::Compare::EQUAL);

// Reads a range as of a revision; 0 for the present one.
void add_range(wire_ops *ops, const key_range &range, int64_t revision = 0);

// With a lease the key is deleted when the lease ends.
void add_put(wire_ops *ops, const std::string &key, const std::string &value, int64_t lease = 0);

// Updates only the revision of a key's latest change.
void add_touch(wire_ops *ops, const std::string &key);

void add_delete(wire_ops *ops, const key_range &range);

// Whether a reply has a result for each operation, so that callers can index them. A request without
// conditions cannot fail.
bool has_all_results(const wire::TxnRequest &request, const wire::TxnResponse &response);

// The result of a read among the operations; the first value of it, "" if there is none.
const wire::RangeResponse &range_in(const wire::TxnResponse &response, int op);
std::string value_in(const wire::TxnResponse &response, int op);

}  // namespace keyview::host
