// Which registry this process uses.
#include "host/entry/settings.h"

#include <mutex>

#include "host/support/environment.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

// Guarded by fork_mutex().
static std::string &chosen_url() {
    static auto &url = *new std::string;
    return url;
}

void choose_registry(const std::string &url) {
    std::lock_guard guard(fork_mutex());
    chosen_url() = url;
}

std::string registry_url() {
    std::string url;
    {
        std::lock_guard guard(fork_mutex());
        url = chosen_url();
    }
    if (url.empty()) url = environment_text("KEYVIEW_REGISTRY");
    if (!url.empty()) return url;
    throw host_error(
        failure::usage,
        "no registry is chosen: set KEYVIEW_REGISTRY to its URL, for example to lmdb:/var/lib/keyview");
}

}  // namespace keyview::host
