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
    // A token of a key: 24 bits for the use of the slot, 16 of the client, which are not 0, and 24 for
    // the slot. FREE has a slot that no key has.
    static constexpr uint64_t ONE_USE = uint64_t{1} << 40;
    static constexpr uint64_t FREE = 0xFFFFFF;

    struct open_key {
        uint64_t token = FREE;      // its handle
        uint64_t latest_token = 0;  // of this use, or of the one before
        open_key *next_free = nullptr;

        // Either a key of copies, or a path and the value read at the open.
        known_copies *of = nullptr;
        copied_key copied;
        std::string path;
        std::string value;

        // The enumeration, once it began: children of a key of copies, or of an own one if no lock
        // covers the key.
        bool listed = false;
        bool childless;
        uint32_t left;
        const snapshot::row *next_child;
        const snapshot *list;
        known_copies *list_of;
        std::unique_ptr<snapshot> own_list;
    };

    open_key *free_slot();
    void *begin_use(open_key *key);
    void end_use(open_key *key);
    open_key *find(const void *handle);

    int32_t open_instead(open_key *of, const char *path, void **handle);
    int32_t search_and_open(const char *path, void **handle);
    bool read(const char *path, open_key *key);
    tree_reader reader() { return {keys_.get(), &kept_, token}; }
    int32_t list_children(open_key *key);

    static int32_t value_too_long(const open_key &key, uint32_t capacity);
    static int32_t name_too_long(const open_key &key, uint32_t name_size, uint32_t capacity);
    static int32_t no_more_keys(const open_key &key);
    static std::string_view path_of(const open_key &key);
    static std::string_view value_of(const open_key &key);

    std::shared_ptr<store> keys_;
    kept_copies kept_;
    open_key *first_free_ = nullptr;
    size_t slots_ = 0;  // the size of open_
    std::vector<std::unique_ptr<open_key>> open_;
};

}  // namespace keyview::host
