// What the entry points of the administration share: what is thrown becomes a result, and the ways
// to the registry in force.
#ifndef KEYVIEW_ADMIN_ENTRY_H
#define KEYVIEW_ADMIN_ENTRY_H

#include <exception>
#include <new>
#include <string>

#include "admin/admin.h"
#include "host/entry/backends.h"
#include "host/entry/settings.h"
#include "host/registry/backend.h"
#include "host/support/error.h"

namespace keyview::admin {

status status_of(host::failure kind);

// Runs one entry point; what it throws becomes its result.
template <typename outcome, typename work>
outcome guarded(work &&run) noexcept {
    outcome out;
    auto fail = [&](status code, const char *text) {
        out = outcome();
        out.code = code;
        out.text = text;
    };
    try {
        run(&out);
    } catch (const host::host_error &error) {
        fail(status_of(error.kind), error.what());
    } catch (const std::bad_alloc &) {
        fail(status::internal, "out of memory");
    } catch (const std::exception &error) {
        fail(status::internal, error.what());
    }
    return out;
}

// Null if there is no such registry.
host::backend open_if_there(const std::string &url);

// Throws failure::registry if there is none.
host::backend open_present();

}  // namespace keyview::admin

#endif
