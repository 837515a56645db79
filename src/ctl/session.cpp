// Starts and ends the library, and turns its codes into errors of the tool.
#include "ctl/session.h"

#include <utility>

#include "admin/care/inspection.h"
#include "admin/registry.h"
#include "ctl/output.h"
#include "host/if/keyview_host.h"

namespace keyview::ctl {

session::session(const tool &tool_in_use) : shared(tool_in_use) {
    prsr::result<prsr::context> made = prsr::context::init();
    check(made.code(), "the registry cannot be opened");
    context_ = std::move(made).value();
    shared.reporter->step("reads, or waits for a lock that \"keyviewctl lock list\" shows");
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

void session::check_damage(const std::string &text, const std::string &what) const {
    if (!text.empty()) fail({KEYVIEW_FAILURE_CONTENT, text}, what, shared.registry);
}

void session::observe_lock(const std::string &name) const {
    if (!observer) return;
    (void)observed(LOCK_WAIT, [&] {
        try {
            (void)admin::registry::open().lock(name, true, -1);
        } catch (const admin::error &) {  // the call that follows reports it, and waits no more
            (void)keyview_host_set_lock_wait(0);
        }
        return 0;
    });
}

view_list database_names(const session &library, const std::string &what) {
    const auto names = library->list_db();
    view_list out;
    for (std::string_view name : *names)
        out.push_back(text_view(name));
    // This operation reports a list that cannot be allocated as a bad argument.
    library.check(names.code() == PRSR_ERR_ARGUMENT ? PRSR_ERR_MEMORY : names.code(), what);
    // It reports a registry that cannot be enumerated as an empty one.
    if (out.empty()) attempt(what, library.shared.registry, admin::check_listing);
    return out;
}

}  // namespace keyview::ctl
