// Opening an embedded registry: one store and one lock service for all its users in the process.
#include "host/embedded/embedded.h"

#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "host/embedded/directory.h"
#include "host/embedded/file_locks.h"
#include "host/embedded/lmdb_check.h"
#include "host/embedded/lmdb_store.h"
#include "host/registry/lock_wait.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

struct known_store {
    uint64_t generation;
    std::weak_ptr<lmdb_store> store;
};

// Guarded by fork_mutex().
static std::map<file_id, known_store> &known_stores() {
    static auto &all = *new std::map<file_id, known_store>;
    return all;
}

// Deletes a store, and only then makes it unknown: LMDB must not open a file that the process still
// has open.
static void close_store(lmdb_store *store, file_id id) {
    delete store;
    std::lock_guard guard(fork_mutex());
    auto found = known_stores().find(id);
    if (found != known_stores().end() && found->second.store.expired()) known_stores().erase(found);
}

// The store that the process has open, if any. Waits while a thread of this process closes it; one
// that an ancestor was closing at the fork stays as it is.
static std::shared_ptr<lmdb_store> find_store(file_id id) {
    for (;; std::this_thread::yield()) {
        std::lock_guard guard(fork_mutex());
        auto found = known_stores().find(id);
        if (found == known_stores().end()) return nullptr;
        std::shared_ptr<lmdb_store> known = found->second.store.lock();
        if (known != nullptr || found->second.generation != fork_generation()) return known;
    }
}

// One open at a time, outside of fork_mutex(): it may wait for writers.
static std::shared_ptr<lmdb_store> open_store(
    const std::shared_ptr<const registry_directory> &directory) {
    static auto &opening = *new per_process<std::mutex>;
    std::lock_guard turn(opening.get());
    file_id id = directory->data_id();
    std::shared_ptr<lmdb_store> store = find_store(id);
    if (store != nullptr) return store;
    store.reset(new lmdb_store(directory, std::make_shared<file_locks>(directory)),
                [id](lmdb_store *old) { close_store(old, id); });
    std::lock_guard guard(fork_mutex());
    known_stores()[id] = {fork_generation(), store};
    return store;
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
    std::shared_ptr<lmdb_store> keys = open_store(directory);
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
