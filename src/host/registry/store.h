// The small interface over which the registry client and the administration are written once. Each
// backend implements it: the embedded one on LMDB, the one of the cluster on etcd.
//
// A path is a key's elements joined by ".". A failure is thrown as a host_error
// (host/support/error.h) whose text names the path and the cause. A store may be used by several
// threads at once. What is delivered to a sink was read before the first call of the sink, so a
// sink may take its time and use the store.
#ifndef KEYVIEW_HOST_REGISTRY_STORE_H
#define KEYVIEW_HOST_REGISTRY_STORE_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host/support/export.h"

namespace keyview::host {

class held_lock;

// One key of a change set. put creates the key, its missing parents (with empty values) included,
// or replaces its value; a value that is there already is not written again. remove deletes the key
// with all that is below it; a key that is not there is no failure. A put with a path that no key
// can have (path.h), or a value above MAX_VALUE_SIZE, is failure::usage.
struct change {
    enum class kind { put, remove };
    kind what;
    std::string path;
    std::string value;  // as stored: a text carries its zero byte
};

struct change_counts {
    uint64_t created = 0;   // missing parents included
    uint64_t replaced = 0;  // of those that changed
    uint64_t removed = 0;   // what was below included
};

class KEYVIEW_HOST_API store {
  public:
    // Receives a key and its value. The views end with the call.
    using row_sink = std::function<void(std::string_view path, std::string_view value)>;

    store() = default;
    store(const store &) = delete;
    store &operator=(const store &) = delete;
    virtual ~store() = default;

    // Reads the value of one key; false if there is no such key.
    virtual bool read(std::string_view path, std::string *value) = 0;

    // Delivers the children of a key in order, by path and value; false if there is no such key.
    // count, called first, tells how many.
    virtual bool read_children(std::string_view path, const std::function<void(uint32_t)> &count,
                               const row_sink &sink) = 0;

    // Delivers a key and all that is below it, from one moment; false if there is no such key. A
    // key comes before its children; children of one key come in their order.
    virtual bool read_subtree(std::string_view path, const row_sink &sink) = 0;

    // Replaces the value of an existing key; false if there is no such key. Where fence is given,
    // nothing is written unless that lock is still held.
    virtual bool set(std::string_view path, std::string_view value, const held_lock *fence) = 0;

    // Carries out all changes in order, or none of them.
    virtual change_counts apply(const std::vector<change> &changes) = 0;
};

}  // namespace keyview::host

#endif
