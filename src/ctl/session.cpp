// Starts and ends the library, and turns its codes into errors of the tool.
#include "ctl/session.h"

#include <cstring>

#include "ctl/output.h"
#include "host/if/keyview_host.h"

namespace keyview::ctl {

session::session(const tool &shared) : status(status_block_), registry_(shared.registry) {
    check(prsr_init(status, &ctx), "the registry cannot be opened");
    shared.told->step("reads, or waits for a lock that \"keyviewctl lock list\" shows");
}

session::~session() {
    // The lock service goes with the process if it refuses to end here.
    if (ctx != nullptr) (void)prsr_terminate(status, ctx);
}

void session::check(int32_t rc, const std::string &what) const {
    if (rc == PRSR_SUCCESS) return;
    const library_failure &failure = library_failure_of(rc);
    std::string why = failure.host_knows ? keyview_host_last_error() : "";
    if (why.empty()) why = failure.why;
    exit_code code = failure.code;
    if (failure.host_knows) code = exit_of_host_failure(keyview_host_last_error_kind(), code);
    bool same = code == failure.code;
    throw tool_error{code, what, registry_, why, same ? failure.todo : begin_exits()[code].todo};
}

fetched_record::fetched_record(const session &library, const std::string &dbname)
    : library_(library) {
    rc = prsr_fetch_db_config(library.status, library.ctx, dbname.c_str(), &record);
}

// Giving it back has no other failure than a bad context.
fetched_record::~fetched_record() {
    if (rc == PRSR_SUCCESS) (void)prsr_release_db_config(library_.status, library_.ctx, record);
}

// A path's length is enough but for a value that was written by other means.
int32_t read_name(const name_reader &read, std::string *name) {
    constexpr size_t FIRST_SIZE = 4096, GROWTH = 16, LAST_SIZE = 1 << 20;
    int32_t rc = PRSR_ERR_ARGUMENT;
    for (size_t size = FIRST_SIZE; rc == PRSR_ERR_ARGUMENT && size <= LAST_SIZE; size *= GROWTH) {
        std::string buf(size, '\0');
        rc = read(static_cast<uint32_t>(size), buf.data());
        buf.resize(strlen(buf.c_str()));
        *name = std::move(buf);
    }
    return rc;
}

}  // namespace keyview::ctl
