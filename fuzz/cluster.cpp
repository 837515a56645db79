// The document of the small cluster, version by version.
#include "cluster.h"

#include <nlohmann/json.hpp>

#include "admin/care/export.h"
#include "admin/document/document.h"

namespace keyview::test {

using nlohmann::json;

// The lists grow far beyond a page, so that the file grows and shrinks inside.
size_t spfile_length_of(int version) {
    return static_cast<size_t>(version % 300) + 1;
}

uint32_t env_count_of(int version) {
    return static_cast<uint32_t>(version % 7) * 20;
}

// The databases of a document in the order of an export.
static json cluster_databases(int version, bool with_flags) {
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

std::string cluster_document(int version, bool with_flags) {
    return json{{"format", "keyview-cluster"},
                {"version", 1},
                {"databases", cluster_databases(version, with_flags)}}
        .dump();
}

void apply(int version, bool with_flags) {
    (void)admin::apply_document(cluster_document(version, with_flags), {});
}

void apply_filler(int number, size_t bytes) {
    json entry = {{"scope", "node0"},
                  {"name", numbered("Filler", number)},
                  {"env", json::array({std::string(bytes, 'f')})}};
    json document = {{"format", "keyview-cluster"}, {"version", 1}};
    document["stg"] = json::array({entry});
    (void)admin::apply_document(document.dump(), {});
}

static json exported_databases() {
    return json::parse(admin::export_document(false).document)["databases"];
}

std::vector<std::string> exported_domains() {
    std::vector<std::string> out;
    for (const json &database : exported_databases())
        out.push_back(database["domain"]);
    return out;
}

std::string difference_from(int version) {
    const json whole = cluster_databases(version, true), found = exported_databases();
    return found == whole ? "" : json::diff(whole, found).dump().substr(0, 2000);
}

}  // namespace keyview::test
