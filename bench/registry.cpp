// Fills registries through the host kit, which takes exact keys.
#include "bench/registry.h"

#include "bench/failure.h"
#include "host/if/keyview_registry.h"

namespace keyview::bench {

void fill_registry(const std::string &url, const std::vector<tree_key> &keys) {
    std::vector<keyview_change> changes;
    for (const tree_key &key : keys) {
        changes.push_back(
            {{key.path.data(), key.path.size()}, {key.value.data(), key.value.size()}, 0});
    }
    keyview_registry *registry = nullptr;
    require(keyview_registry_open(url.c_str(), 1, &registry) == 0, keyview_host_last_error());
    int32_t rc = keyview_registry_apply(registry, changes.data(), changes.size(), nullptr, 0, 0);
    keyview_registry_close(registry);
    require(rc == 0, keyview_host_last_error());
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
