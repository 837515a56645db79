// Parts of transactions as messages of etcd.
#include "cluster/request.h"

namespace keyview::host {

static wire::Compare *add_compare(wire::TxnRequest *request, const key_range &range,
                                  wire::Compare::CompareTarget target,
                                  wire::Compare::CompareResult result) {
    wire::Compare *compare = request->add_compare();
    compare->set_key(range.begin);
    if (!range.end.empty()) compare->set_range_end(range.end);
    compare->set_target(target);
    compare->set_result(result);
    return compare;
}

void require_created(wire::TxnRequest *request, const key_range &range, int64_t revision) {
    add_compare(request, range, wire::Compare::CREATE, wire::Compare::EQUAL)
        ->set_create_revision(revision);
}

void require_there(wire::TxnRequest *request, const std::string &key) {
    add_compare(request, {key, ""}, wire::Compare::CREATE, wire::Compare::GREATER)
        ->set_create_revision(0);
}

void require_changed(wire::TxnRequest *request, const std::string &key, int64_t revision) {
    add_compare(request, {key, ""}, wire::Compare::MOD, wire::Compare::EQUAL)
        ->set_mod_revision(revision);
}

void require_value(wire::TxnRequest *request, const std::string &key, const std::string &value,
                   wire::Compare::CompareResult result) {
    add_compare(request, {key, ""}, wire::Compare::VALUE, result)->set_value(value);
}

void add_range(wire_ops *ops, const key_range &range, int64_t revision) {
    wire::RangeRequest *ask = ops->Add()->mutable_request_range();
    ask->set_key(range.begin);
    if (!range.end.empty()) ask->set_range_end(range.end);
    ask->set_revision(revision);
}

void add_put(wire_ops *ops, const std::string &key, const std::string &value, int64_t lease) {
    wire::PutRequest *put = ops->Add()->mutable_request_put();
    put->set_key(key);
    put->set_value(value);
    put->set_lease(lease);
}

void add_touch(wire_ops *ops, const std::string &key) {
    wire::PutRequest *put = ops->Add()->mutable_request_put();
    put->set_key(key);
    put->set_ignore_value(true);
    put->set_ignore_lease(true);
}

void add_delete(wire_ops *ops, const key_range &range) {
    wire::DeleteRangeRequest *removal = ops->Add()->mutable_request_delete_range();
    removal->set_key(range.begin);
    if (!range.end.empty()) removal->set_range_end(range.end);
}

bool has_all_results(const wire::TxnRequest &request, const wire::TxnResponse &response) {
    const bool succeeded = response.succeeded();
    const int asked = succeeded ? request.success_size() : request.failure_size();
    return response.responses_size() == asked && (succeeded || request.compare_size() > 0);
}

const wire::RangeResponse &range_in(const wire::TxnResponse &response, int op) {
    return response.responses(op).response_range();
}

std::string value_in(const wire::TxnResponse &response, int op) {
    const wire::RangeResponse &found = range_in(response, op);
    return found.kvs_size() == 0 ? "" : found.kvs(0).value();
}

}  // namespace keyview::host
