// The operations as the tests call them: the arguments of each, and its outputs as text.
#include "operations.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

static std::string contents(const std::string &file) {
    std::ifstream stream(KEYVIEW_TEST_FILES "/" + file);
    EXPECT_TRUE(stream.is_open()) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

const std::string CLUSTER = contents("cluster.txt");

test_host::test_host(const std::string &tree, bool with_trace) : fake_host(tree) {
    if (!with_trace) fail("register", "", 1, 1);
    EXPECT_EQ(prsr_init(status, &ctx), PRSR_SUCCESS);
    forget();
}

test_host::~test_host() {
    if (ctx != nullptr) prsr_terminate(status, ctx);
}

void test_host::store(const char *key, const std::string &bytes) {
    put(expanded(key), bytes);
}

std::string joined(const std::vector<std::string> &parts) {
    std::string text;
    for (const std::string &part : parts)
        text += part + "\n";
    return text;
}

std::string expanded(std::string text) {
    static const std::pair<const char *, const char *> NAMES[] = {
        {"$EMPTY",
         "$L.available=null $L.preferred=null $L.RCNPOLICY=0 $L.ENVIRONMENT=null $L.ENABLED=0"},
        {"$T", "$S.INSTANCES.sales"},
        {"$S", "$D.$L"},
        {"$L", "SERVICE.web*shop"},
        {"$I", "$D.INSTANCE.sales"},
        {"$D", "$ROOT.sales"},
        {"$ROOT", "DATABASE.DATABASES"},
        {"$E", "DATABASE.STG.node1.mgr1"},
        {"$N", "DATABASE.NODEAPPS.node22"},
    };
    for (auto &name : NAMES) {
        for (size_t at = 0; (at = text.find(name.first, at)) != std::string::npos;) {
            text.replace(at, strlen(name.first), name.second);
        }
    }
    return text;
}

std::vector<std::pair<std::string, std::vector<std::string>>> sections(const char *file) {
    std::vector<std::pair<std::string, std::vector<std::string>>> found;
    std::istringstream lines(contents(file));
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        line = expanded(line);
        if (line[0] != ' ') found.push_back({line, {}});
        if (line[0] == ' ') found.back().second.push_back(line.substr(line.find_first_not_of(' ')));
    }
    return found;
}

std::vector<std::string> report(const std::string &reporter, const std::string &call,
                                const std::string &path, int32_t code) {
    std::string function = reporter.substr(0, reporter.find('!'));
    std::string api = call == "open"         ? "open_key"
                      : call != "enum"       ? call + "_value"
                      : function == reporter ? "enum_subkey"
                                             : "enum_key";
    return {"0 " + function + ": KVT api kvtc_" + api + " failed for key " + path + " with " +
                std::to_string(code),
            "0 KVT error code : " + std::to_string(1000 + code),
            "0 KVT error msg : " + call + " " + path};
}

const std::map<std::string, int32_t> CODES = {
    {"ok", PRSR_SUCCESS},          {"argument", PRSR_ERR_ARGUMENT},
    {"memory", PRSR_ERR_MEMORY},   {"registry", PRSR_ERR_REGISTRY},
    {"lock", PRSR_ERR_LOCK},       {"no_database", PRSR_ERR_NO_DATABASE},
    {"threads", PRSR_ERR_THREADS}, {"stg", PRSR_ERR_NO_STG},
    {"role", PRSR_ERR_ROLE},       {"nodeapps", PRSR_ERR_NO_NODEAPPS},
};

// ---- Results as text ----------------------------------------------------------------------------

static char nobodys[1];  // where a pointer points that was not written

template <class T>
static T *untouched() {
    return reinterpret_cast<T *>(nobodys);
}

static std::string shown(const char *text) {
    if (text == nullptr) return "null";
    return text == nobodys ? "untouched" : text;
}

// A list, with its flags if it has some. "-" is a null slot; "null:2" is a list that is null and
// yet counts two.
static std::string shown(char *const *list, uint32_t count, const int32_t *flags = nullptr) {
    if (list == untouched<char *>()) return "untouched";
    if (list == nullptr) return count == 0 ? "null" : "null:" + std::to_string(count);
    std::string text;
    for (uint32_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : ",") + (list[i] == nullptr ? "-" : shown(list[i]));
        if (flags != nullptr) text += ":" + std::to_string(flags[i]);
    }
    return text;
}

static std::string lower(std::string text) {
    for (char &c : text)
        c = char(tolower(c));
    return text;
}

static void show(const prsr_inst_cfg &inst, fields *out) {
    std::string at = "INSTANCE." + lower(inst.name);
    EXPECT_EQ(inst.reserved, 0u);
    (*out)[at] = inst.name;
    (*out)[at + ".NODE"] = shown(inst.node);
    (*out)[at + ".ENVIRONMENT"] = shown(inst.env, inst.env_n);
    (*out)[at + ".ENABLED"] = std::to_string(inst.enabled);
}

static void show(const prsr_srv_cfg &srv, fields *out) {
    std::string at = "SERVICE." + lower(srv.name);
    EXPECT_EQ(srv.reserved, 0u);
    if (srv.available != nullptr) EXPECT_EQ(srv.available[srv.available_count], nullptr);
    if (srv.preferred != nullptr) EXPECT_EQ(srv.preferred[srv.preferred_count], nullptr);
    (*out)[at] = srv.name;
    (*out)[at + ".available"] = shown(srv.available, srv.available_count, srv.available_enabled);
    (*out)[at + ".preferred"] = shown(srv.preferred, srv.preferred_count, srv.preferred_enabled);
    (*out)[at + ".RCNPOLICY"] = std::to_string(srv.rcn_policy);
    (*out)[at + ".ENVIRONMENT"] = shown(srv.env, srv.env_n);
    (*out)[at + ".ENABLED"] = std::to_string(srv.enabled);
}

template <class RECORD>
using text_fields = std::vector<std::pair<const char *, char * RECORD::*>>;

// The fields that all records share.
template <class RECORD>
static fields shown(const RECORD &cfg, const char *tag, const text_fields<RECORD> &texts) {
    EXPECT_EQ(std::string(cfg.tag, 8), tag);
    fields out = {{"ENVIRONMENT", shown(cfg.env, cfg.env_n)}};
    for (auto &text : texts)
        out[text.first] = shown(cfg.*text.second);
    return out;
}

static fields shown(const prsr_cfg &cfg) {
    fields out = shown<prsr_cfg>(cfg, "PRSRCFGB",
                                 {{"sp", &prsr_cfg::sp_name},
                                  {"DB_CLU_ALIAS.IP", &prsr_cfg::alias_ip},
                                  {"TALVEN_HOME", &prsr_cfg::home},
                                  {"SPFILE", &prsr_cfg::spfile},
                                  {"DB_NAME", &prsr_cfg::db_name},
                                  {"ROLE", &prsr_cfg::role},
                                  {"START_OPTIONS", &prsr_cfg::start_options},
                                  {"POLICY", &prsr_cfg::policy},
                                  {"DOMAIN", &prsr_cfg::domain}});
    EXPECT_EQ(cfg.constant_one, 1);
    out["ENABLED"] = std::to_string(cfg.enabled);
    out["INSTANCE"] = cfg.instances ? std::to_string(cfg.instance_count) : "null";
    out["SERVICE"] = cfg.services ? std::to_string(cfg.service_count) : "null";
    EXPECT_TRUE(cfg.instances != nullptr || cfg.instance_count == 0);
    EXPECT_TRUE(cfg.services != nullptr || cfg.service_count == 0);
    for (uint32_t i = 0; i < cfg.instance_count; ++i)
        show(*cfg.instances[i], &out);
    for (uint32_t i = 0; i < cfg.service_count; ++i)
        show(*cfg.services[i], &out);
    return out;
}

static fields shown(const prsr_stg_cfg &cfg) {
    EXPECT_EQ(cfg.reserved, 0u);
    fields out = shown<prsr_stg_cfg>(cfg, "PRSRCFGA",
                                     {{"SPFILE", &prsr_stg_cfg::spfile},
                                      {"TALVEN_HOME", &prsr_stg_cfg::home},
                                      {"START_OPTIONS", &prsr_stg_cfg::start_options},
                                      {"VERSION", &prsr_stg_cfg::version}});
    out["ENABLED"] = std::to_string(cfg.enabled);
    return out;
}

static fields shown(const prsr_nodeapps_cfg &cfg) {
    EXPECT_TRUE(cfg.constant_one == 1 && cfg.reserved == 0);
    return shown<prsr_nodeapps_cfg>(cfg, "PRSRCFGC",
                                    {{"name", &prsr_nodeapps_cfg::name},
                                     {"TALVEN_HOME", &prsr_nodeapps_cfg::home},
                                     {"VIP", &prsr_nodeapps_cfg::vip},
                                     {"VIP.INTERFACES", &prsr_nodeapps_cfg::interfaces},
                                     {"VIP.NETMASK", &prsr_nodeapps_cfg::netmask}});
}

// ---- The operations -----------------------------------------------------------------------------

static outcome init(const caller &by) {
    prsr_ctx *made = untouched<prsr_ctx>();
    int32_t rc = prsr_init(by.host.status, &made);
    if (rc == PRSR_SUCCESS) EXPECT_EQ(prsr_terminate(by.host.status, made), PRSR_SUCCESS);
    return {rc, {{"ctx", made == nullptr ? "null" : "made"}}};
}

// The operations of one shape, by the names that they take.
template <auto OPERATION, auto... NAMES>
static outcome set_to(const caller &by) {
    return {OPERATION(by.host.status, by.ctx, by.*NAMES..., by.value), {}};
}

template <auto OPERATION, auto... NAMES>
static outcome get_number(const caller &by) {
    int32_t answer = 77;
    int32_t rc = OPERATION(by.host.status, by.ctx, by.*NAMES..., &answer);
    return {rc, {{"answer", std::to_string(answer)}}};
}

template <auto OPERATION, auto... NAMES>
static outcome get_name(const caller &by) {
    const std::string behind(8, '~');
    std::string buf = std::string(by.bufsize, '~') + behind;
    int32_t rc = OPERATION(by.host.status, by.ctx, by.*NAMES..., by.bufsize, buf.data());
    EXPECT_EQ(buf.substr(by.bufsize), behind) << "the operation wrote behind its buffer";
    buf.resize(by.bufsize);
    std::string text = buf.substr(0, buf.find('\0'));
    return {rc, {{"buf", text == std::string(by.bufsize, '~') ? "untouched" : text}}};
}

template <class RECORD, auto FETCH, auto RELEASE, auto... NAMES>
static outcome fetch(const caller &by) {
    RECORD *cfg = untouched<RECORD>();
    int32_t rc = FETCH(by.host.status, by.ctx, by.*NAMES..., &cfg);
    if (cfg == nullptr) return {rc, {{"cfg", "null"}}};
    outcome result = {rc, shown(*cfg)};
    EXPECT_EQ(RELEASE(by.host.status, by.ctx, cfg), PRSR_SUCCESS);
    return result;
}

template <auto RELEASE, class... NOTHING>
static outcome release(const caller &by) {
    return {RELEASE(by.host.status, by.ctx, NOTHING()...), {}};
}

static outcome list_db(const caller &by) {
    char **list = untouched<char *>();
    uint32_t count = 77;
    int32_t rc = prsr_list_db(by.host.status, by.ctx, &list, &count);
    outcome result = {rc, {{"list", shown(list, count)}, {"count", std::to_string(count)}}};
    if (list == nullptr || list == untouched<char *>()) return result;
    EXPECT_EQ(prsr_release_db_list(by.host.status, by.ctx, list, count), PRSR_SUCCESS);
    return result;
}

// With a count of 0 only null is distinguished from other pointers.
static outcome get_srv_instances(const caller &by) {
    char **insts = untouched<char *>(), **nodes = untouched<char *>();
    int32_t *avail = untouched<int32_t>();
    uint32_t count = 77;
    int32_t rc = prsr_get_srv_instances(by.host.status, by.ctx, by.db, by.srv, &insts, &nodes,
                                        &avail, &count);
    bool cleared = insts == nullptr && nodes == nullptr && avail == nullptr;
    std::string roster = cleared ? "null" : "";
    for (uint32_t i = 0; i < count; ++i)
        roster += shown(insts[i]) + "/" + shown(nodes[i]) + ":" + std::to_string(avail[i]) + ";";
    outcome result = {rc, {{"count", std::to_string(count)}, {"roster", roster}}};
    int32_t given_back =
        prsr_release_srv_instances(by.host.status, by.ctx, insts, nodes, avail, count);
    EXPECT_EQ(given_back, rc == PRSR_ERR_CONTEXT ? PRSR_ERR_CONTEXT : PRSR_SUCCESS);
    return result;
}

static outcome terminate(const caller &by) {
    int32_t rc = prsr_terminate(by.host.status, by.ctx);
    if (rc == PRSR_SUCCESS) by.host.ctx = nullptr;
    return {rc, {}};
}

static outcome get_domain(const caller &by) {
    char *domain = untouched<char>();
    int32_t rc = prsr_get_domain(by.host.status, by.ctx, by.db, &domain);
    outcome result = {rc, {{"domain", shown(domain)}}};
    if (rc == PRSR_SUCCESS) EXPECT_EQ(prsr_free_domain(by.ctx, domain), PRSR_SUCCESS);
    return result;
}

constexpr auto DB = &caller::db, INST = &caller::inst, SRV = &caller::srv, NODE = &caller::node,
               SCOPE = &caller::scope, STG = &caller::stg;
constexpr auto FETCH_DB = fetch<prsr_cfg, prsr_fetch_db_config, prsr_release_db_config, DB>;
constexpr auto FETCH_STG =
    fetch<prsr_stg_cfg, prsr_fetch_stg_config, prsr_release_stg_config, SCOPE, STG>;
constexpr auto FETCH_NODE =
    fetch<prsr_nodeapps_cfg, prsr_fetch_nodeapps_config, prsr_release_nodeapps_config, NODE>;
constexpr auto RELEASE_ROSTER =
    release<prsr_release_srv_instances, char **, char **, int32_t *, uint32_t>;
static const fields NO_ANSWER = {{"answer", "77"}}, NO_NAME = {{"buf", "untouched"}},
                    NO_RECORD = {{"cfg", "null"}};

const std::vector<operation> OPERATIONS = {
    {"prsr_init", init, {{"ctx", "null"}}},
    {"prsr_terminate", terminate, {}},
    {"prsr_set_db_enabled", set_to<prsr_set_db_enabled, DB>, {}},
    {"prsr_get_db_enabled", get_number<prsr_get_db_enabled, DB>, NO_ANSWER},
    {"prsr_set_instance_enabled", set_to<prsr_set_instance_enabled, DB, INST>, {}},
    {"prsr_get_instance_enabled", get_number<prsr_get_instance_enabled, DB, INST>, NO_ANSWER},
    {"prsr_set_service_enabled", set_to<prsr_set_service_enabled, DB, SRV>, {}},
    {"prsr_get_service_enabled", get_number<prsr_get_service_enabled, DB, SRV>, NO_ANSWER},
    {"prsr_set_service_instance_enabled",
     set_to<prsr_set_service_instance_enabled, DB, SRV, INST>,
     {}},
    {"prsr_get_service_instance_enabled",
     get_number<prsr_get_service_instance_enabled, DB, SRV, INST>, NO_ANSWER},
    {"prsr_get_service_instance_supported",
     get_number<prsr_get_service_instance_supported, DB, SRV, INST>,
     {{"answer", "0"}}},
    {"prsr_list_db", list_db, {{"list", "untouched"}, {"count", "77"}}},
    {"prsr_release_db_list", release<prsr_release_db_list, char **, uint32_t>, {}},
    {"prsr_fetch_db_config", FETCH_DB, NO_RECORD},
    {"prsr_release_db_config", release<prsr_release_db_config, prsr_cfg *>, {}},
    {"prsr_get_srv_instances", get_srv_instances, {{"count", "0"}, {"roster", ""}}},
    {"prsr_release_srv_instances", RELEASE_ROSTER, {}},
    {"prsr_set_db_role", set_to<prsr_set_db_role, DB>, {}},
    {"prsr_get_db_role", get_number<prsr_get_db_role, DB>, NO_ANSWER},
    {"prsr_get_spname", get_name<prsr_get_spname, DB>, NO_NAME},
    {"prsr_get_instance_name", get_name<prsr_get_instance_name, DB, INST>, NO_NAME},
    {"prsr_get_node_instance_name", get_name<prsr_get_node_instance_name, DB, NODE>, NO_NAME},
    {"prsr_get_service_rcn_policy", get_number<prsr_get_service_rcn_policy, DB, SRV>, NO_ANSWER},
    {"prsr_get_domain", get_domain, {{"domain", "untouched"}}},
    {"prsr_fetch_stg_config", FETCH_STG, NO_RECORD},
    {"prsr_release_stg_config", release<prsr_release_stg_config, prsr_stg_cfg *>, {}},
    {"prsr_get_stg_name", get_name<prsr_get_stg_name, SCOPE, STG>, NO_NAME},
    {"prsr_get_stg_enabled", get_number<prsr_get_stg_enabled, SCOPE, STG>, NO_ANSWER},
    {"prsr_fetch_nodeapps_config", FETCH_NODE, NO_RECORD},
    {"prsr_release_nodeapps_config",
     release<prsr_release_nodeapps_config, prsr_nodeapps_cfg *>,
     {}},
};

outcome run(const std::string &name, const caller &by) {
    for (const operation &op : OPERATIONS) {
        if (name == op.name) return op.run(by);
    }
    ADD_FAILURE() << "no operation " << name;
    return {};
}
