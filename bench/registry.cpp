// Fills registries through the host kit's store, which takes exact keys.
#include "bench/registry.h"

#include "bench/failure.h"
#include "host/entry/backends.h"
#include "host/if/keyview_host.h"

namespace keyview::bench {

void fill_registry(const std::string &url, const std::vector<tree_key> &keys) {
    std::vector<host::change> changes;
    for (const tree_key &key : keys)
        changes.push_back({host::change::kind::put, key.path, key.value});
    host::open_backend(url, host::open_mode::create).keys->apply(changes);
}

std::string make_registry(const std::string &directory, const std::vector<tree_key> &keys) {
    const std::string url = "lmdb:" + directory;
    fill_registry(url, keys);
    return url;
}

std::string make_record_registry(const std::string &directory,
                                 const std::vector<record_size> &sizes) {
    std::vector<tree_key> keys;
    for (const record_size &size : sizes) {
        const std::vector<tree_key> more = record_keys(size);
        keys.insert(keys.end(), more.begin(), more.end());
    }
    return make_registry(directory, keys);
}

session::session(const std::string &url) {
    require(keyview_host_set_registry(url.c_str()) == 0, keyview_host_last_error());
    require(prsr_init(status, &ctx) == PRSR_SUCCESS, keyview_host_last_error());
}

void session::fetch(const char *database) {
    prsr_cfg *cfg = nullptr;
    require(prsr_fetch_db_config(status, ctx, database, &cfg) == PRSR_SUCCESS, "the fetch failed");
    (void)prsr_release_db_config(status, ctx, cfg);  // a live context cannot fail it
}

}  // namespace keyview::bench
