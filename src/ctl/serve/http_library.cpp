// See http_library.h.
#include "ctl/serve/http_library.h"

#include <dlfcn.h>

#include "ctl/output.h"

namespace keyview::ctl {

static constexpr const char *LIBRARY = "libmicrohttpd.so.12";

static http_library load_library() {
    void *library = dlopen(LIBRARY, RTLD_NOW | RTLD_LOCAL);
    auto refuse = [] {
        throw tool_error{EXIT_INTERNAL, "no server can be started", LIBRARY, dlerror(),
                         "install the package libmicrohttpd12"};
    };
    if (library == nullptr) refuse();
    http_library out = {};
    auto find = [&](auto *call, const char *name) {
        void *found = dlsym(library, name);
        if (found == nullptr) refuse();
        *call = reinterpret_cast<std::remove_reference_t<decltype(*call)>>(found);
    };
#define KEYVIEW_HTTP_CALL(name) find(&out.name, "MHD_" #name);
    KEYVIEW_HTTP_CALLS(KEYVIEW_HTTP_CALL)
#undef KEYVIEW_HTTP_CALL
    return out;
}

const http_library &http() {
    static const http_library LOADED = load_library();
    return LOADED;
}

}  // namespace keyview::ctl
