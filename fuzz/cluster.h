// A small cluster for the runs that break processes, and contexts on its registry.
#ifndef KEYVIEW_FUZZ_CLUSTER_H
#define KEYVIEW_FUZZ_CLUSTER_H

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "host/if/keyview_admin.h"
#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

namespace keyview::test {

constexpr int DATABASES = 3;
constexpr int SERVICES = 3;
constexpr int INSTANCES = 6;

inline std::string numbered(const char *name, int n) {
    return name + std::to_string(n);
}

// The document of the cluster in one of many versions, which differ in every database.
inline std::string cluster_document(int version) {
    using nlohmann::json;
    json databases = json::array();
    for (int d = 0; d < DATABASES; ++d) {
        json members = json::array();
        json instances = json::array();
        for (int i = 0; i < INSTANCES; ++i) {
            instances.push_back({{"name", numbered("Inst", i)},
                                 {"node", numbered("node", (i + version) % INSTANCES)},
                                 {"enabled", true}});
            members.push_back({{"name", numbered("Inst", i)}, {"enabled", true}});
        }
        json services = json::array();
        for (int s = 0; s < SERVICES; ++s) {
            services.push_back({{"name", numbered("Srv", s)},
                                {"rcn_policy", "BASIC"},
                                {"enabled", true},
                                {"preferred", members},
                                {"available", json::array()}});
        }
        databases.push_back({{"name", numbered("Db", d)},
                             {"spfile", std::string(static_cast<size_t>(version % 300), 'p')},
                             {"domain", numbered("v", version) + ".example.com"},
                             {"role", "PRIMARY"},
                             {"policy", "AUTOMATIC"},
                             {"enabled", true},
                             {"instances", instances},
                             {"services", services}});
    }
    return json{{"format", "keyview-cluster"}, {"version", 1}, {"databases", databases}}.dump();
}

inline void expect_done(const admin::result &done, const char *what) {
    if (done.code == admin::status::done) return;
    std::string first =
        done.problems.empty() ? "" : done.problems[0].place + done.problems[0].reason;
    throw std::runtime_error(std::string(what) + ": " + done.text + " " + first);
}

class context {
  public:
    context() { expect(prsr_init(status, &ctx), "prsr_init"); }
    context(const context &) = delete;
    context &operator=(const context &) = delete;
    ~context() { (void)prsr_terminate(status, ctx); }

    static void expect(int32_t rc, const char *what) {
        if (rc == PRSR_SUCCESS) return;
        throw std::runtime_error(std::string(what) + " gave " + std::to_string(rc) + ": " +
                                 keyview_host_last_error());
    }

    char status[256] = {};
    prsr_ctx *ctx = nullptr;
};

}  // namespace keyview::test

#endif
