// One handle of the registry client: its open keys over a store. Within the part of the tree that a
// lock of the calling thread covers it reads the lock's snapshot, elsewhere the store.
//
// The functions return what the kvtc_ operations return; they may throw host_error.
#ifndef KEYVIEW_HOST_REGISTRY_CLIENT_H
#define KEYVIEW_HOST_REGISTRY_CLIENT_H

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/registry/backend.h"
#include "host/registry/snapshot.h"

namespace keyview::host {

class registry_client {
  public:
    explicit registry_client(const backend &registry) : keys_(registry.keys) {}

    int32_t open(std::string_view path, void **handle);
    int32_t close(void *handle);
    int32_t get_value(void *handle, void *value, uint32_t *size);
    int32_t set_value(void *handle, std::string_view value);
    int32_t next_subkey(void *handle, char *name, uint32_t *size, int32_t *last);

    uint64_t token = 0;  // of this handle itself

  private:
    struct open_key {
        uint32_t slot;
        uint32_t uses = 0;  // how often the slot was opened and closed; odd while it is open

        // Either a key of a snapshot, or a path and the value read at the open.
        std::shared_ptr<snapshot> view;
        uint32_t index;
        std::string path;
        std::string value;

        // The enumeration, once it began: children of a snapshot's key, or names.
        bool listed;
        uint32_t passed;
        uint32_t count;
        uint32_t first;
        std::shared_ptr<snapshot> list;
        std::vector<std::string> names;
    };

    open_key *free_slot();
    void *begin_use(open_key *key);
    open_key *find(const void *handle);
    uint64_t key_token(const open_key &key) const;

    int32_t list_children(open_key *key);
    static std::string path_of(const open_key &key);
    static std::string_view name_of(const open_key &key);

    std::shared_ptr<store> keys_;
    std::deque<open_key> open_;
    std::vector<uint32_t> free_;
};

}  // namespace keyview::host

#endif
