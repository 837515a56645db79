// A small cluster for the runs that break processes, and contexts on its registry.
#pragma once

#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "admin/care/export.h"
#include "admin/document/document.h"
#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

namespace keyview::test {

constexpr int DATABASES = 4;
constexpr int SERVICES = 3;
constexpr int INSTANCES = 6;

inline std::string numbered(const char *name, int n) {
    return name + std::to_string(n);
}

inline void require(bool holds, const std::string &what) {
    if (!holds) throw std::runtime_error(what);
}

// What tells the versions of a database apart. The lists grow far beyond a page, so that the file
// grows and shrinks inside.
inline std::string domain_of(int version) {
    return numbered("v", version) + ".example.com";
}

inline size_t spfile_length_of(int version) {
    return static_cast<size_t>(version % 300) + 1;
}

inline uint32_t env_count_of(int version) {
    return static_cast<uint32_t>(version % 7) * 20;
}

// The databases of a document in the order of an export. Without flags it leaves all flags and
// roles as they are.
inline nlohmann::json cluster_databases(int version, bool with_flags) {
    using nlohmann::json;
    json all = json::array();
    for (int d = 0; d < DATABASES; ++d) {
        json members = json::array();
        json instances = json::array();
        json services = json::array();
        for (int i = 0; i < INSTANCES; ++i) {
            members.push_back({{"name", numbered("Inst", i)}});
            instances.push_back({{"name", numbered("Inst", i)}, {"node", numbered("node", i)}});
            if (with_flags) members.back()["enabled"] = instances.back()["enabled"] = true;
        }
        for (int s = 0; s < SERVICES; ++s) {
            services.push_back({{"name", numbered("Srv", s)},
                                {"rcn_policy", "BASIC"},
                                {"preferred", members},
                                {"available", json::array()}});
            if (with_flags) services.back()["enabled"] = true;
        }
        all.push_back({{"name", numbered("Db", d)},
                       {"spfile", std::string(spfile_length_of(version), 'p')},
                       {"domain", domain_of(version)},
                       {"env", json(env_count_of(version), std::string(1000, 'e'))},
                       {"instances", instances},
                       {"services", services}});
        if (with_flags) all.back().update({{"role", "PRIMARY"}, {"enabled", true}});
    }
    return all;
}

inline std::string cluster_document(int version, bool with_flags = false) {
    return nlohmann::json{{"format", "keyview-cluster"},
                          {"version", 1},
                          {"databases", cluster_databases(version, with_flags)}}
        .dump();
}

inline void apply(int version, bool with_flags = false) {
    (void)admin::apply_document(cluster_document(version, with_flags), {});
}

// Puts in a record that no lock of a database covers, with a list of that size.
inline void apply_filler(int number, size_t bytes) {
    nlohmann::json entry = {{"scope", "node0"},
                            {"name", numbered("Filler", number)},
                            {"env", nlohmann::json::array({std::string(bytes, 'f')})}};
    nlohmann::json document = {{"format", "keyview-cluster"}, {"version", 1}};
    document["stg"] = nlohmann::json::array({entry});
    (void)admin::apply_document(document.dump(), {});
}

// The databases of the registry as an export tells them.
inline nlohmann::json exported_databases() {
    return nlohmann::json::parse(admin::export_document(false).document)["databases"];
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

// Measures what must not take long, however often others are in the way.
class stopwatch {
  public:
    int64_t ms() const { return us() / 1000; }
    int64_t us() const {
        auto taken = std::chrono::steady_clock::now() - start_;
        return std::chrono::duration_cast<std::chrono::microseconds>(taken).count();
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace keyview::test
