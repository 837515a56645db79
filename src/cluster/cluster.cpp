// Sessions by URL, and the functions that the module exports.
#include "cluster/cluster.h"

#include <map>
#include <memory>
#include <mutex>
#include <tuple>

#include "cluster/cluster_settings.h"
#include "cluster/etcd_locks.h"
#include "cluster/etcd_store.h"
#include "host/support/fork.h"

namespace keyview::host {

// Contexts with the same identity share a session.
static auto identity_of(const cluster_settings &settings) {
    return std::tuple(settings.url, settings.ca_file, settings.cert_file, settings.key_file,
                      settings.login_file, settings.answer_wait, settings.lease_ttl);
}

static std::shared_ptr<etcd_store> store_of(const cluster_settings &settings) {
    static auto &known = *new std::map<decltype(identity_of({})), std::weak_ptr<etcd_store>>;
    std::lock_guard guard(fork_mutex());
    for (auto at = known.begin(); at != known.end();)
        at = at->second.expired() ? known.erase(at) : std::next(at);
    std::weak_ptr<etcd_store> &slot = known[identity_of(settings)];
    std::shared_ptr<etcd_store> found = slot.lock();
    if (found == nullptr) {
        found = std::make_shared<etcd_store>(std::make_shared<session>(settings));
        slot = found;
    }
    return found;
}

// Backends of one URL share one session in this process.
static backend open(const std::string &url, open_mode mode) {
    std::shared_ptr<etcd_store> keys = store_of(settings_of(url));
    keys->open(mode == open_mode::create);
    return {keys, std::make_shared<etcd_locks>(keys->cluster())};
}

static void check_url(const std::string &url) {
    (void)settings_of(url);
}

const backend_kind KEYVIEW_BACKEND_KIND = {check_url, open, check_cluster, diagnose_cluster};

}  // namespace keyview::host
