// What the C++ layer costs: a fetch, a walk over all that the record holds, and the release, beside
// the same by the operations and the record themselves.
#include <cstring>

#include "bench/failure.h"
#include "bench/registry.h"
#include "bench/rows.h"
#include "keyview/if/prsr.hpp"

namespace keyview::bench {

constexpr char LAYER[] = "fetch + walk + release typical, C++ layer / C";

// ---- By hand ------------------------------------------------------------------------------------

static size_t length(const char *text) {
    return text == nullptr ? 0 : strlen(text);
}

static size_t length(char *const *texts, uint32_t count) {
    size_t sum = 0;
    for (uint32_t n = 0; texts != nullptr && n < count; ++n)
        sum += length(texts[n]);
    return sum;
}

static size_t length(char *const *names, const int32_t *enabled, uint32_t count) {
    size_t sum = 0;
    for (uint32_t n = 0; names != nullptr && n < count; ++n)
        sum += length(names[n]) + (enabled[n] != 0 ? 1 : 0);
    return sum;
}

static size_t walk(const prsr_cfg &cfg) {
    size_t sum = length(cfg.sp_name) + length(cfg.alias_ip) + length(cfg.home) +
                 length(cfg.spfile) + length(cfg.db_name) + length(cfg.role) +
                 length(cfg.start_options) + length(cfg.domain) + length(cfg.policy) +
                 length(cfg.env, cfg.env_n) + (cfg.enabled != 0 ? 1 : 0);
    for (uint32_t n = 0; n < cfg.instance_count; ++n) {
        const prsr_inst_cfg &one = *cfg.instances[n];
        sum += length(one.name) + length(one.node) + length(one.env, one.env_n) +
               (one.enabled != 0 ? 1 : 0);
    }
    for (uint32_t n = 0; n < cfg.service_count; ++n) {
        const prsr_srv_cfg &one = *cfg.services[n];
        sum += length(one.name) + length(one.env, one.env_n) +
               length(one.preferred, one.preferred_enabled, one.preferred_count) +
               length(one.available, one.available_enabled, one.available_count) +
               static_cast<uint32_t>(one.rcn_policy) + (one.enabled != 0 ? 1 : 0);
    }
    return sum;
}

static size_t fetch_by_hand(session *reader) {
    prsr_cfg *cfg = nullptr;
    require(
        prsr_fetch_db_config(reader->status, reader->ctx, TYPICAL.database, &cfg) == PRSR_SUCCESS,
        "the fetch failed");
    const size_t sum = walk(*cfg);
    (void)prsr_release_db_config(reader->status, reader->ctx, cfg);
    return sum;
}

// ---- Through the layer --------------------------------------------------------------------------

static size_t length(const prsr::string_list &texts) {
    size_t sum = 0;
    for (std::string_view text : texts)
        sum += text.size();
    return sum;
}

static size_t length(const prsr::service_instance_list &instances) {
    size_t sum = 0;
    for (auto [name, enabled] : instances)
        sum += name.size() + (enabled ? 1 : 0);
    return sum;
}

static size_t walk(const prsr::database &cfg) {
    size_t sum = cfg.sp_name().size() + cfg.alias_ip().size() + cfg.home().size() +
                 cfg.spfile().size() + cfg.db_name().size() + cfg.role().size() +
                 cfg.start_options().size() + cfg.domain().size() + cfg.policy().size() +
                 length(cfg.env()) + (cfg.enabled() ? 1 : 0);
    for (prsr::instance one : cfg.instances()) {
        sum += one.name().size() + one.node().size() + length(one.env()) + (one.enabled() ? 1 : 0);
    }
    for (prsr::service one : cfg.services()) {
        sum += one.name().size() + length(one.env()) + length(one.preferred()) +
               length(one.available()) + static_cast<uint32_t>(one.rcn_policy()) +
               (one.enabled() ? 1 : 0);
    }
    return sum;
}

static size_t fetch_through_layer(prsr::context *reader) {
    const auto fetched = reader->fetch_db_config(TYPICAL.database);
    require(static_cast<bool>(fetched), "the fetch failed");
    return walk(*fetched);
}

void layer_rows(const bench_setup &setup) {
    if (!setup.to->wants({LAYER})) return;
    session plain(setup.url);
    prsr::context layer = prsr::context::init().value();
    const size_t sum = fetch_by_hand(&plain);
    require(fetch_through_layer(&layer) == sum, "another record through the layer");
    const auto figures = interleave(
        {301, 3}, {[&] { require(fetch_through_layer(&layer) == sum, "another record"); },
                   [&] { require(fetch_by_hand(&plain) == sum, "another record"); }});
    setup.to->ratio(LAYER, figures[0], figures[1], 1.02);
}

}  // namespace keyview::bench
