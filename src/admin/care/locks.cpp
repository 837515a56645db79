// Locks for programs other than the library: taken, and told of.
#include <set>
#include <utility>

#include "admin/change/key_map.h"
#include "admin/document/fields.h"
#include "admin/entry.h"
#include "host/registry/lock_wait.h"

namespace keyview::admin {

namespace {

class held final : public lock_hold {
  public:
    held(host::backend registry, const std::string &name, bool shared, uint32_t wait_ms)
        : registry_(std::move(registry)),
          lock_(registry_.locks->acquire(
              name, shared ? host::lock_mode::shared : host::lock_mode::exclusive, wait_ms)) {}

    bool still_held() const override { return lock_->still_held(); }

  private:
    host::backend registry_;
    std::shared_ptr<host::held_lock> lock_;
};

}  // namespace

lock_result take_lock(const std::string &name, bool shared,
                      std::optional<uint32_t> wait_ms) noexcept {
    return guarded<lock_result>([&](lock_result *out) {
        out->lock = std::make_unique<held>(open_present(), name, shared,
                                           wait_ms.value_or(host::lock_wait_ms()));
    });
}

std::string lock_of_key(std::string_view path) {
    return lock_of(path);
}

// The names that programs lock by: of the sections' lists, and of all that stands in them.
static std::vector<std::string> known_names(host::store *keys) {
    std::set<std::string> names;
    auto now = keys->now();
    for (const list_row &section : SECTIONS) {
        key_map found;
        read_below(now.get(), section.key,
                   section.record->scoped ? reach::all_below : reach::children, &found);
        names.insert(lock_of(section.key));
        for (const auto &[path, value] : found)
            names.insert(lock_of(path));
    }
    return {names.begin(), names.end()};
}

locks_result list_locks() noexcept {
    return guarded<locks_result>([](locks_result *out) {
        host::backend registry = open_present();
        for (host::lock_use &use : registry.locks->users(known_names(registry.keys.get()))) {
            bool shared = use.mode == host::lock_mode::shared;
            out->users.push_back({std::move(use.name), shared, use.waits, std::move(use.holder)});
        }
    });
}

}  // namespace keyview::admin
