// The registries that the library is measured on, and a context on one of them.
#pragma once

#include <string>
#include <vector>

#include "bench/workload.h"
#include "keyview/if/prsr.h"

namespace keyview::bench {

// The registry that most rows use holds the three records and the one that writers change.
constexpr record_size BUSY = {"Busy", 2, 3};

// Makes a registry and puts the keys in.
void fill_registry(const std::string &url, const std::vector<tree_key> &keys);

// The same in a new directory; gives its URL.
std::string make_registry(const std::string &directory, const std::vector<tree_key> &keys);
std::string make_record_registry(const std::string &directory,
                                 const std::vector<record_size> &sizes);

// A context of the library on a registry.
class session {
  public:
    explicit session(const std::string &url);
    session(const session &) = delete;
    session &operator=(const session &) = delete;
    ~session() { (void)prsr_terminate(status, ctx); }

    // Fetches and releases: what a caller does.
    void fetch(const char *database);

    char status[256] = {};
    prsr_ctx *ctx = nullptr;
};

}  // namespace keyview::bench
