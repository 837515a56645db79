// Starts and ends the library, and turns its codes into errors of the tool.
#include "ctl/session.h"

#include <cstring>

#include "admin/care/inspection.h"
#include "ctl/output.h"
#include "host/if/keyview_host.h"

namespace keyview::ctl {

session::session(const tool &tool_in_use) : shared(tool_in_use) {
    check(prsr_init(status_, &ctx_), "the registry cannot be opened");
    shared.reporter->step("reads, or waits for a lock that \"keyviewctl lock list\" shows");
}

session::~session() {
    // The lock service goes with the process if it refuses to end here.
    if (ctx_ != nullptr) (void)prsr_terminate(status_, ctx_);
}

tool_error session::failure(int32_t rc, const std::string &what) const {
    const library_failure &known = library_failure_of(rc);
    std::string why = known.host_knows ? keyview_host_last_error() : "";
    if (why.empty()) why = known.why;
    exit_code code = known.code;
    if (known.host_knows) code = exit_of_host_failure(keyview_host_last_error_kind(), code);
    bool same = code == known.code;
    return {code, what, shared.registry, why, same ? known.todo : exit_rows().first[code].todo};
}

void session::check_record(int32_t rc, const std::string &what, const std::string &key) const {
    check(rc, what);
    attempt(what, shared.registry, [&] { admin::require_sound(key); });
}

// A path's length is enough but for a value that was written by other means.
int32_t session::fill(std::string *name,
                      const std::function<int32_t(uint32_t size, char *buf)> &read) {
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

view_list database_names(const session &library, const std::string &what) {
    char **names = nullptr;
    uint32_t count = 0;
    int32_t rc = library.call(prsr_list_db, &names, &count);
    view_list out;
    for (uint32_t n = 0; names != nullptr && n < count; ++n)
        out.push_back(text_view(names[n]));
    if (names != nullptr) (void)library.call(prsr_release_db_list, names, count);
    // This operation reports a list that cannot be allocated as a bad argument.
    library.check(rc == PRSR_ERR_ARGUMENT ? PRSR_ERR_MEMORY : rc, what);
    // It reports a registry that cannot be enumerated as an empty one.
    if (out.empty()) attempt(what, library.shared.registry, admin::check_listing);
    return out;
}

}  // namespace keyview::ctl
