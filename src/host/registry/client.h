// One handle of the registry client: its open keys over a store. Keys that a lock of the calling
// thread covers are read from the view of that lock, all others from the store.
//
// The functions return the codes of the kvtc_ operations; they may throw host_error.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/if/keyview_registry.h"
#include "host/registry/backend.h"
#include "host/registry/locked_view.h"
#include "host/registry/snapshot.h"

namespace keyview::host {

// Delivers each value that this thread sets to a callback, until it is null.
void observe_sets(keyview_change_callback callback, void *arg) noexcept;

class registry_client {
  public:
    explicit registry_client(const backend &registry) : keys_(registry.keys), kept_(keys_) {}

    int32_t open(const char *path, void **handle);
    int32_t close(void *handle);
    int32_t get_value(void *handle, void *value, uint32_t *size);
    int32_t set_value(void *handle, std::string_view value);
    int32_t next_subkey(void *handle, char *name, uint32_t *size, int32_t *last);

    uint64_t token = 0;  // of this handle itself

  private:
    // A key of a copy, as copied_key, which the open key keeps alive.
    struct referred_key {
        referred_copies *of = nullptr;
        snapshot *part = nullptr;
        uint32_t key = snapshot::NONE;
    };

    struct open_key {
        uint64_t token = 0;         // its handle; 0 while it is free
        uint64_t latest_token = 0;  // of this use, or of the one before
        open_key *next_free = nullptr;

        // Either a key of a copy, or a path and the value read at the open.
        referred_key copied;
        std::string path;
        std::string value;

        // The enumeration, once it began: children of a copy's key.
        bool listed;
        uint32_t passed;
        snapshot::range children;
        referred_key list;
        std::unique_ptr<snapshot> own_list;  // of a key that no lock covers
    };

    open_key *free_slot();
    void *begin_use(open_key *key);
    open_key *find(const void *handle);

    int32_t search_and_open(const char *path, void **handle);
    bool read(const char *path, open_key *key);
    int32_t list_children(open_key *key);

    void refer(referred_key *from, const copied_key &to) {
        *from = {to.of == nullptr ? nullptr : kept_.refer(to.of), to.part, to.key};
    }
    static void forget(referred_key *from) {
        if (from->of != nullptr) kept_copies::release(from->of);
        *from = {};
    }
    static int32_t value_too_long(const open_key &key, uint32_t capacity);
    static int32_t name_too_long(const open_key &key, uint32_t name_size, uint32_t capacity);
    static int32_t no_more_keys(const open_key &key);
    static std::string_view path_of(const open_key &key);
    static std::string_view value_of(const open_key &key);

    std::shared_ptr<store> keys_;
    kept_copies kept_;
    std::vector<std::unique_ptr<open_key>> open_;
    open_key *first_free_ = nullptr;
};

}  // namespace keyview::host
