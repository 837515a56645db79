// Opening an embedded registry: one store and one lock service for all its users in the process.
#include "host/embedded/embedded.h"

#include <map>
#include <memory>

#include "host/embedded/directory.h"
#include "host/embedded/file_locks.h"
#include "host/embedded/lmdb_check.h"
#include "host/embedded/lmdb_store.h"
#include "host/registry/lock_wait.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

using shared_stores = std::map<file_id, std::weak_ptr<lmdb_store>>;

// Guarded by fork_mutex().
static shared_stores &known_stores() {
    static auto &all = *new shared_stores;
    return all;
}

static std::shared_ptr<lmdb_store> known_store(file_id id) {
    std::lock_guard guard(fork_mutex());
    auto found = known_stores().find(id);
    return found == known_stores().end() ? nullptr : found->second.lock();
}

// Another thread may have been faster; then its store is used.
static std::shared_ptr<lmdb_store> make_known(file_id id,
                                              const std::shared_ptr<lmdb_store> &fresh) {
    std::lock_guard guard(fork_mutex());
    shared_stores &all = known_stores();
    for (auto at = all.begin(); at != all.end();)
        at = at->second.expired() ? all.erase(at) : std::next(at);
    std::shared_ptr<lmdb_store> known = all[id].lock();
    if (known == nullptr) all[id] = known = fresh;
    return known;
}

static std::string directory_of(const std::string &url) {
    return url.substr(url.find(':') + 1);
}

static void check_url(const std::string &url) {
    if (!directory_of(url).empty()) return;
    throw host_error(failure::usage, "'" + url + "' names no directory: use lmdb:<directory>");
}

static backend open(const std::string &url, open_mode mode) {
    check_url(url);
    auto directory = std::make_shared<const registry_directory>(directory_of(url), mode);
    std::shared_ptr<lmdb_store> keys = known_store(directory->data_id());
    if (keys == nullptr) {
        auto fresh =
            std::make_shared<lmdb_store>(directory, std::make_shared<file_locks>(directory));
        keys = make_known(directory->data_id(), fresh);
    }
    return {keys, keys->locks()};
}

// Reads the files as bytes, so no writer may be at work.
static check_counts check(const std::string &url, const damage_sink &damage, const row_sink &sink) {
    check_url(url);
    auto directory =
        std::make_shared<const registry_directory>(directory_of(url), open_mode::existing);
    auto locks = std::make_shared<file_locks>(directory);
    std::shared_ptr<held_lock> writing =
        locks->acquire(file_locks::WRITERS, lock_mode::exclusive, lock_wait_ms());
    return check_data_file(directory->open_data().get(), damage, sink);
}

const backend_kind EMBEDDED_KIND = {check_url, open, check, diagnose_embedded};

}  // namespace keyview::host
