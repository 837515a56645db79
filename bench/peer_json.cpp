// The record as JSON: written once, read by two parsers.
#include "bench/peer_json.h"

#include <fcntl.h>
#include <simdjson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "bench/failure.h"
#include "bench/record_builder.h"

namespace keyview::bench {

using nlohmann::json;

// ---- Writing ------------------------------------------------------------------------------------

static json json_env(char *const *env, uint32_t env_n) {
    return std::vector<std::string>(env, env + env_n);
}

static json json_named(char *const *names, const int32_t *enabled, uint32_t count) {
    json list = json::array();
    for (uint32_t i = 0; i < count; ++i)
        list.push_back({{"name", names[i]}, {"enabled", enabled[i] != 0}});
    return list;
}

static json json_service(const prsr_srv_cfg &srv) {
    return {{"name", srv.name},
            {"rcn_policy", srv.rcn_policy},
            {"enabled", srv.enabled != 0},
            {"env", json_env(srv.env, srv.env_n)},
            {"preferred", json_named(srv.preferred, srv.preferred_enabled, srv.preferred_count)},
            {"available", json_named(srv.available, srv.available_enabled, srv.available_count)}};
}

void write_json(const std::string &file, const prsr_cfg &cfg) {
    json record = {{"name", cfg.sp_name},
                   {"alias_ip", cfg.alias_ip},
                   {"home", cfg.home},
                   {"spfile", cfg.spfile},
                   {"db_name", cfg.db_name},
                   {"role", cfg.role},
                   {"domain", cfg.domain},
                   {"start_options", cfg.start_options},
                   {"policy", cfg.policy},
                   {"enabled", cfg.enabled != 0},
                   {"env", json_env(cfg.env, cfg.env_n)}};
    for (uint32_t i = 0; i < cfg.instance_count; ++i) {
        const prsr_inst_cfg &inst = *cfg.instances[i];
        record["instances"].push_back({{"name", inst.name},
                                       {"node", inst.node},
                                       {"enabled", inst.enabled != 0},
                                       {"env", json_env(inst.env, inst.env_n)}});
    }
    for (uint32_t i = 0; i < cfg.service_count; ++i)
        record["services"].push_back(json_service(*cfg.services[i]));
    std::ofstream(file) << record.dump() << '\n';
}

void write_json_list(const std::string &file, char *const *names, uint32_t count) {
    std::ofstream(file) << json_env(names, count).dump() << '\n';
}

// ---- Reading ------------------------------------------------------------------------------------

// Reads a file into a buffer that keeps its room; spare bytes follow the text.
static void read_file(const std::string &file, size_t spare, std::vector<char> *text,
                      size_t *size) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat about = {};
    require_call(fd >= 0 && fstat(fd, &about) == 0, "open");
    *size = static_cast<size_t>(about.st_size);
    if (text->size() < *size + spare) text->resize(*size + spare);
    const ssize_t got = read(fd, text->data(), *size);
    close(fd);
    require_call(got == about.st_size, "read");
}

static char *copy_text(std::string_view text) {
    auto *copy = static_cast<char *>(malloc(text.size() + 1));
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// ---- nlohmann::json -----------------------------------------------------------------------------

static char *text_of(const json &value) {
    return copy_text(value.get_ref<const std::string &>());
}

static void take_texts(const json &list, char ***texts, uint32_t *count) {
    *count = static_cast<uint32_t>(list.size());
    *texts = static_cast<char **>(malloc(*count * sizeof(char *)));
    for (uint32_t i = 0; i < *count; ++i)
        (*texts)[i] = text_of(list[i]);
}

static void take_named(const json &list, char ***names, int32_t **flags, uint32_t *count) {
    *count = static_cast<uint32_t>(list.size());
    *names = static_cast<char **>(malloc(*count * sizeof(char *)));
    *flags = static_cast<int32_t *>(malloc(*count * sizeof(int32_t)));
    for (uint32_t i = 0; i < *count; ++i) {
        (*names)[i] = text_of(list[i]["name"]);
        (*flags)[i] = list[i]["enabled"].get<bool>() ? 1 : 0;
    }
}

static prsr_inst_cfg *instance_of(const json &from) {
    auto *inst = zeroed<prsr_inst_cfg>(1);
    inst->name = text_of(from["name"]);
    inst->node = text_of(from["node"]);
    inst->enabled = from["enabled"].get<bool>() ? 1 : 0;
    take_texts(from["env"], &inst->env, &inst->env_n);
    return inst;
}

static prsr_srv_cfg *service_of(const json &from) {
    auto *srv = zeroed<prsr_srv_cfg>(1);
    srv->name = text_of(from["name"]);
    srv->rcn_policy = from["rcn_policy"].get<int32_t>();
    srv->enabled = from["enabled"].get<bool>() ? 1 : 0;
    take_texts(from["env"], &srv->env, &srv->env_n);
    take_named(from["preferred"], &srv->preferred, &srv->preferred_enabled, &srv->preferred_count);
    take_named(from["available"], &srv->available, &srv->available_enabled, &srv->available_count);
    return srv;
}

// The texts of a record itself.
struct text_field {
    const char *name;
    char *prsr_cfg::*field;
};
static constexpr text_field TEXTS[] = {
    {"name", &prsr_cfg::sp_name},    {"alias_ip", &prsr_cfg::alias_ip},
    {"home", &prsr_cfg::home},       {"spfile", &prsr_cfg::spfile},
    {"db_name", &prsr_cfg::db_name}, {"role", &prsr_cfg::role},
    {"domain", &prsr_cfg::domain},   {"start_options", &prsr_cfg::start_options},
    {"policy", &prsr_cfg::policy},
};

prsr_cfg *fetch_nlohmann(const std::string &file) {
    static std::vector<char> text;
    size_t size = 0;
    read_file(file, 0, &text, &size);
    const json record = json::parse(text.data(), text.data() + size);
    prsr_cfg *cfg = start_record().cfg;
    for (const text_field &text_row : TEXTS)
        cfg->*text_row.field = text_of(record[text_row.name]);
    cfg->enabled = record["enabled"].get<bool>() ? 1 : 0;
    take_texts(record["env"], &cfg->env, &cfg->env_n);
    const json &instances = record["instances"];
    cfg->instances = static_cast<prsr_inst_cfg **>(malloc(instances.size() * sizeof(void *)));
    for (const json &one : instances)
        cfg->instances[cfg->instance_count++] = instance_of(one);
    const json &services = record["services"];
    cfg->services = static_cast<prsr_srv_cfg **>(malloc(services.size() * sizeof(void *)));
    for (const json &one : services)
        cfg->services[cfg->service_count++] = service_of(one);
    return cfg;
}

name_list list_nlohmann(const std::string &file) {
    static std::vector<char> text;
    size_t size = 0;
    read_file(file, 0, &text, &size);
    name_list found = {};
    take_texts(json::parse(text.data(), text.data() + size), &found.names, &found.count);
    return found;
}

// ---- simdjson -----------------------------------------------------------------------------------

using ondemand_value = simdjson::ondemand::value;

static void take_texts(ondemand_value list, char ***texts, uint32_t *count) {
    for (auto one : list.get_array())
        append(texts, count, copy_text(one.get_string()));
}

static void take_named(ondemand_value list, char ***names, int32_t **flags, uint32_t *count) {
    uint32_t flag_count = 0;
    for (auto one : list.get_array()) {
        for (auto field : one.get_object()) {
            const std::string_view key = field.unescaped_key();
            if (key == "name") {
                append(names, count, copy_text(field.value().get_string()));
            } else {
                append(flags, &flag_count, field.value().get_bool().value() ? 1 : 0);
            }
        }
    }
}

static prsr_inst_cfg *instance_of(ondemand_value from) {
    auto *inst = zeroed<prsr_inst_cfg>(1);
    for (auto field : from.get_object()) {
        const std::string_view key = field.unescaped_key();
        if (key == "name") inst->name = copy_text(field.value().get_string());
        if (key == "node") inst->node = copy_text(field.value().get_string());
        if (key == "enabled") inst->enabled = field.value().get_bool().value() ? 1 : 0;
        if (key == "env") take_texts(field.value(), &inst->env, &inst->env_n);
    }
    return inst;
}

static prsr_srv_cfg *service_of(ondemand_value from) {
    auto *srv = zeroed<prsr_srv_cfg>(1);
    for (auto field : from.get_object()) {
        const std::string_view key = field.unescaped_key();
        ondemand_value value = field.value();
        if (key == "name") srv->name = copy_text(value.get_string());
        if (key == "rcn_policy") srv->rcn_policy = static_cast<int32_t>(value.get_int64().value());
        if (key == "enabled") srv->enabled = value.get_bool().value() ? 1 : 0;
        if (key == "env") take_texts(value, &srv->env, &srv->env_n);
        if (key == "preferred") {
            take_named(value, &srv->preferred, &srv->preferred_enabled, &srv->preferred_count);
        }
        if (key == "available") {
            take_named(value, &srv->available, &srv->available_enabled, &srv->available_count);
        }
    }
    return srv;
}

static void take_field(prsr_cfg *cfg, std::string_view key, ondemand_value value) {
    for (const text_field &row : TEXTS)
        if (key == row.name) cfg->*row.field = copy_text(value.get_string());
    if (key == "enabled") cfg->enabled = value.get_bool().value() ? 1 : 0;
    if (key == "env") take_texts(value, &cfg->env, &cfg->env_n);
    if (key == "instances") {
        for (auto one : value.get_array())
            append(&cfg->instances, &cfg->instance_count, instance_of(one.value()));
    }
    if (key == "services") {
        for (auto one : value.get_array())
            append(&cfg->services, &cfg->service_count, service_of(one.value()));
    }
}

struct simdjson_peer::buffers {
    simdjson::ondemand::parser parser;
    std::vector<char> text;
};

simdjson_peer::simdjson_peer() : kept_(std::make_unique<buffers>()) {}

simdjson_peer::~simdjson_peer() = default;

prsr_cfg *simdjson_peer::fetch(const std::string &file) {
    size_t size = 0;
    read_file(file, simdjson::SIMDJSON_PADDING, &kept_->text, &size);
    auto document = kept_->parser.iterate(kept_->text.data(), size, kept_->text.size());
    prsr_cfg *cfg = start_record().cfg;
    for (auto field : document.get_object())
        take_field(cfg, field.unescaped_key(), field.value());
    return cfg;
}

}  // namespace keyview::bench
