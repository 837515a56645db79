// The store of one machine: keys in LMDB, laid out as row.h describes.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/embedded/environment.h"
#include "host/embedded/file_locks.h"
#include "host/embedded/row.h"
#include "host/registry/store.h"
#include "host/support/fork.h"

namespace keyview::host {

class lmdb_store : public store, public std::enable_shared_from_this<lmdb_store> {
  public:
    // Opens the environment.
    lmdb_store(std::shared_ptr<const registry_directory> directory,
               std::shared_ptr<file_locks> locks);

    std::unique_ptr<moment> now(std::string_view part, reach depth) override;
    bool set(std::string_view path, std::string_view value, const held_lock *fence,
             std::string *replaced) override;
    void history(uint64_t since, const history_sink &sink) override;
    using store::apply;
    change_counts apply(const change_source &changes, const apply_terms &terms) override;

    const std::shared_ptr<file_locks> &locks() const { return locks_; }

  private:
    struct opened {
        std::mutex mutex;
        std::optional<environment> env;
        std::atomic<environment *> ready{nullptr};
    };

    environment *env();
    void finish_killed_change(std::string_view part);
    std::shared_ptr<held_lock> write_lock();

    std::shared_ptr<const registry_directory> directory_;
    std::shared_ptr<file_locks> locks_;
    per_process<opened> opened_;
};

}  // namespace keyview::host
