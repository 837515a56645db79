// The registry of this process, the choice of its kind by its URL, and the loading of the one that
// is a module.
#include "host/entry/backends.h"

#include <dlfcn.h>

#include <mutex>
#include <string_view>

#include "host/embedded/embedded.h"
#include "host/registry/backend_kind.h"
#include "host/support/environment.h"
#include "host/support/error.h"
#include "host/support/fd.h"
#include "host/support/fork.h"

namespace keyview::host {

static constexpr const char *MODULE = "libkeyview-etcd.so";

#define IN_QUOTES_OF(name) #name
#define IN_QUOTES(name) IN_QUOTES_OF(name)

static std::string own_directory() {
    Dl_info here = {};
    if (dladdr(&MODULE, &here) == 0 || here.dli_fname == nullptr) return "";
    std::string file = here.dli_fname;
    return file.substr(0, file.rfind('/') + 1);
}

// Beside the kit, where its build leaves it, or in the directory of its modules. It stays loaded.
static const backend_kind &load_cluster_kind() {
    std::string error;
    for (const char *place : {"", "keyview/"}) {
        std::string file = own_directory() + place + MODULE;
        void *module = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
        void *found = module == nullptr ? nullptr : dlsym(module, IN_QUOTES(KEYVIEW_BACKEND_KIND));
        if (found != nullptr) return *static_cast<const backend_kind *>(found);
        const char *why = dlerror();
        error += (error.empty() ? "" : "; ") + std::string(why == nullptr ? "" : why);
    }
    throw host_error(failure::registry,
                     "the part of keyview for clusters is missing or cannot be loaded: install "
                     "keyview's module " +
                         std::string(MODULE) + " (" + error + ")");
}

static const backend_kind &kind_of(const std::string &url) {
    std::string_view scheme = std::string_view(url).substr(0, url.find(':'));
    if (scheme == "lmdb" && scheme.size() < url.size()) return EMBEDDED_KIND;
    if (scheme == "etcd" || scheme == "etcds") {
        static const backend_kind &cluster = load_cluster_kind();
        return cluster;
    }
    throw host_error(failure::usage, "'" + url +
                                         "' is no URL of a registry: use lmdb:<directory>, or "
                                         "etcd://host:port,host:port/prefix for a cluster");
}

// ---- The registry of this process ---------------------------------------------------------------

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

// ---- By URL -------------------------------------------------------------------------------------

void check_registry_url(const std::string &url) {
    kind_of(url).check_url(url);
}

backend open_backend(const std::string &url, open_mode mode) {
    occupy_standard_descriptors();
    return kind_of(url).open(url, mode);
}

check_counts check_backend(const std::string &url, const damage_sink &damage,
                           const row_sink &sink) {
    return kind_of(url).check(url, damage, sink);
}

void diagnose_backend(const std::string &url, const diagnosis_sink &sink) {
    diagnose("configuration", sink, [&] { kind_of(url).diagnose(url, sink); });
}

}  // namespace keyview::host
