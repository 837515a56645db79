// The operations as the tests call them: what each is given, and what it hands out as text.
#include "operations.h"

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
    events.clear();
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

std::vector<std::string> report(const std::string &function, const std::string &call,
                                const std::string &path, int32_t code) {
    std::string api = call == "open"   ? "open_key"
                      : call == "enum" ? "enum_subkey"
                                       : call + "_value";
    return {"0 " + function + ": KVT api kvtc_" + api + " failed for key " + path + " with " +
                std::to_string(code),
            "0 KVT error code : " + std::to_string(1000 + code),
            "0 KVT error msg : " + call + " " + path};
}

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

static fields shown(const prsr_cfg &cfg) {
    static const std::pair<const char *, char * prsr_cfg::*> TEXTS[] = {
        {"sp", &prsr_cfg::sp_name},
        {"DB_CLU_ALIAS.IP", &prsr_cfg::alias_ip},
        {"TALVEN_HOME", &prsr_cfg::home},
        {"SPFILE", &prsr_cfg::spfile},
        {"DB_NAME", &prsr_cfg::db_name},
        {"ROLE", &prsr_cfg::role},
        {"START_OPTIONS", &prsr_cfg::start_options},
        {"POLICY", &prsr_cfg::policy},
        {"DOMAIN", &prsr_cfg::domain}};
    EXPECT_EQ(std::string(cfg.tag, 8), "PRSRCFGB");
    EXPECT_EQ(cfg.constant_one, 1);
    fields out;
    for (auto &text : TEXTS)
        out[text.first] = shown(cfg.*text.second);
    out["ENABLED"] = std::to_string(cfg.enabled);
    out["ENVIRONMENT"] = shown(cfg.env, cfg.env_n);
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

// ---- The operations -----------------------------------------------------------------------------

static outcome init(const caller &by) {
    prsr_ctx *made = untouched<prsr_ctx>();
    int32_t rc = prsr_init(by.host.status, &made);
    if (rc == PRSR_SUCCESS) EXPECT_EQ(prsr_terminate(by.host.status, made), PRSR_SUCCESS);
    return {rc, {{"ctx", made == nullptr ? "null" : "made"}}};
}

template <int32_t (*OPERATION)(void *, prsr_ctx *, const char *, int32_t *)>
static outcome get_db(const caller &by) {
    int32_t answer = 77;
    int32_t rc = OPERATION(by.host.status, by.ctx, by.db, &answer);
    return {rc, {{"answer", std::to_string(answer)}}};
}

template <int32_t (*OPERATION)(void *, prsr_ctx *, const char *, const char *, int32_t *),
          const char *caller::*NAME>
static outcome get_part(const caller &by) {
    int32_t answer = 77;
    int32_t rc = OPERATION(by.host.status, by.ctx, by.db, by.*NAME, &answer);
    return {rc, {{"answer", std::to_string(answer)}}};
}

static outcome set_db_enabled(const caller &by) {
    return {prsr_set_db_enabled(by.host.status, by.ctx, by.db, 0), {}};
}

static outcome set_instance_enabled(const caller &by) {
    return {prsr_set_instance_enabled(by.host.status, by.ctx, by.db, by.inst, 0), {}};
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

static outcome release_db_list(const caller &by) {
    return {prsr_release_db_list(by.host.status, by.ctx, nullptr, 0), {}};
}

static outcome fetch_db_config(const caller &by) {
    prsr_cfg *cfg = untouched<prsr_cfg>();
    int32_t rc = prsr_fetch_db_config(by.host.status, by.ctx, by.db, &cfg);
    if (cfg == nullptr) return {rc, {{"cfg", "null"}}};
    outcome result = {rc, shown(*cfg)};
    EXPECT_EQ(prsr_release_db_config(by.host.status, by.ctx, cfg), PRSR_SUCCESS);
    return result;
}

static outcome release_db_config(const caller &by) {
    return {prsr_release_db_config(by.host.status, by.ctx, nullptr), {}};
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

const std::vector<operation> OPERATIONS = {
    {"prsr_init", init, {{"ctx", "null"}}},
    {"prsr_terminate", terminate, {}},
    {"prsr_set_db_enabled", set_db_enabled, {}},
    {"prsr_get_db_enabled", get_db<prsr_get_db_enabled>, {{"answer", "77"}}},
    {"prsr_set_instance_enabled", set_instance_enabled, {}},
    {"prsr_get_instance_enabled",
     get_part<prsr_get_instance_enabled, &caller::inst>,
     {{"answer", "77"}}},
    {"prsr_list_db", list_db, {{"list", "untouched"}, {"count", "77"}}},
    {"prsr_release_db_list", release_db_list, {}},
    {"prsr_fetch_db_config", fetch_db_config, {{"cfg", "null"}}},
    {"prsr_release_db_config", release_db_config, {}},
    {"prsr_get_service_rcn_policy",
     get_part<prsr_get_service_rcn_policy, &caller::srv>,
     {{"answer", "77"}}},
    {"prsr_get_domain", get_domain, {{"domain", "untouched"}}},
};

outcome run(const std::string &name, const caller &by) {
    for (const operation &op : OPERATIONS) {
        if (name == op.name) return op.run(by);
    }
    ADD_FAILURE() << "no operation " << name;
    return {};
}

fields fetched(const caller &by) {
    outcome got = fetch_db_config(by);
    EXPECT_EQ(got.rc, PRSR_SUCCESS);
    return got.out;
}
