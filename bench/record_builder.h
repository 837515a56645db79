// Builds a database's record from its rows in their order (peer_rows.h): the work that a program
// without the library would write by hand. Plain malloc, nothing of the C++ library, all in the
// header, so that a compared store pays for no more than it needs.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "bench/peer_rows.h"
#include "keyview/if/prsr.h"

namespace keyview::bench {

struct record_builder {
    prsr_cfg *cfg;
    prsr_inst_cfg *inst;  // the last one
    prsr_srv_cfg *srv;    // the last one
    char *own_name;       // of an instance of a service whose type is still to come
    int32_t *flag;        // of an instance of a service
};

struct bytes_view {
    const char *data;
    size_t size;
};

template <typename T>
T *zeroed(size_t count) {
    return static_cast<T *>(calloc(count, sizeof(T)));
}

inline char *copy_bytes(const char *bytes, size_t size) {
    auto *copy = static_cast<char *>(malloc(size));
    if (copy != nullptr) memcpy(copy, bytes, size);
    return copy;
}

inline int32_t flag_of(const char *word) {
    return strcasecmp(word, "FALSE") == 0 ? 0 : 1;
}

inline int32_t policy_of(const char *word) {
    if (strcasecmp(word, "BASIC") == 0) return PRSR_RCN_BASIC;
    return strcasecmp(word, "PRECONNECT") == 0 ? PRSR_RCN_PRECONNECT : PRSR_RCN_NONE;
}

// The strings of a list, each with its zero byte, and one zero byte more.
inline void take_env(const bytes_view &value, char ***env, uint32_t *env_n) {
    uint32_t zeros = 0;
    for (size_t i = 0; i < value.size; ++i)
        zeros += value.data[i] == '\0' ? 1 : 0;
    if (zeros < 2) return;
    *env_n = zeros - 1;
    *env = static_cast<char **>(malloc(*env_n * sizeof(char *)));
    const char *at = value.data;
    for (uint32_t i = 0; i < *env_n; ++i) {
        const size_t size = strlen(at) + 1;
        (*env)[i] = copy_bytes(at, size);
        at += size;
    }
}

inline list_counts counts_of(const bytes_view &value) {
    list_counts counts;
    memcpy(&counts, value.data, sizeof counts);
    return counts;
}

inline void start_service_lists(prsr_srv_cfg *srv, const list_counts &counts) {
    srv->preferred = static_cast<char **>(malloc(counts.first * sizeof(char *)));
    srv->preferred_enabled = static_cast<int32_t *>(malloc(counts.first * sizeof(int32_t)));
    srv->available = static_cast<char **>(malloc(counts.second * sizeof(char *)));
    srv->available_enabled = static_cast<int32_t *>(malloc(counts.second * sizeof(int32_t)));
}

inline void place_service_instance(record_builder *to, const char *type) {
    prsr_srv_cfg *srv = to->srv;
    if (strcmp(type, "PREFERRED") == 0) {
        to->flag = &srv->preferred_enabled[srv->preferred_count];
        srv->preferred[srv->preferred_count++] = to->own_name;
    } else {
        to->flag = &srv->available_enabled[srv->available_count];
        srv->available[srv->available_count++] = to->own_name;
    }
    to->own_name = nullptr;
}

// ---- A record's own fields ----------------------------------------------------------------------

inline void take_list_row(record_builder *to, row_kind kind, const bytes_view &value) {
    const uint32_t count = counts_of(value).first;
    if (kind == INST_LIST) {
        to->cfg->instances = static_cast<prsr_inst_cfg **>(malloc(count * sizeof(void *)));
    } else {
        to->cfg->services = static_cast<prsr_srv_cfg **>(malloc(count * sizeof(void *)));
    }
}

inline void take_db_row(record_builder *to, row_kind kind, const bytes_view &value) {
    prsr_cfg *cfg = to->cfg;
    switch (kind) {
        case DB_ALIAS:
            return;
        case DB_ENABLED:
            cfg->enabled = flag_of(value.data);
            return;
        case DB_ENV:
            return take_env(value, &cfg->env, &cfg->env_n);
        default:
            break;
    }
    char *text = copy_bytes(value.data, value.size);
    switch (kind) {
        case DB_OWN:
            cfg->sp_name = text;
            break;
        case DB_ALIAS_IP:
            cfg->alias_ip = text;
            break;
        case DB_HOME:
            cfg->home = text;
            break;
        case DB_SPFILE:
            cfg->spfile = text;
            break;
        case DB_DB_NAME:
            cfg->db_name = text;
            break;
        case DB_ROLE:
            cfg->role = text;
            break;
        case DB_START_OPTIONS:
            cfg->start_options = text;
            break;
        case DB_POLICY:
            cfg->policy = text;
            break;
        case DB_DOMAIN:
            cfg->domain = text;
            break;
        default:
            free(text);
    }
}

inline void take_inst_row(record_builder *to, row_kind kind, const bytes_view &value) {
    switch (kind) {
        case INST_OWN:
            to->inst = zeroed<prsr_inst_cfg>(1);
            to->cfg->instances[to->cfg->instance_count++] = to->inst;
            to->inst->name = copy_bytes(value.data, value.size);
            return;
        case INST_NODE:
            to->inst->node = copy_bytes(value.data, value.size);
            return;
        case INST_ENABLED:
            to->inst->enabled = flag_of(value.data);
            return;
        default:
            return take_env(value, &to->inst->env, &to->inst->env_n);
    }
}

inline void take_srv_row(record_builder *to, row_kind kind, const bytes_view &value) {
    switch (kind) {
        case SRV_OWN:
            to->srv = zeroed<prsr_srv_cfg>(1);
            to->cfg->services[to->cfg->service_count++] = to->srv;
            to->srv->name = copy_bytes(value.data, value.size);
            return;
        case SRV_ENV:
            return take_env(value, &to->srv->env, &to->srv->env_n);
        case SRV_POLICY:
            to->srv->rcn_policy = policy_of(value.data);
            return;
        case SRV_ENABLED:
            to->srv->enabled = flag_of(value.data);
            return;
        default:
            return start_service_lists(to->srv, counts_of(value));
    }
}

inline void take_row(record_builder *to, const bytes_view &name, const bytes_view &value) {
    const auto kind = static_cast<row_kind>(name.data[name.size - 1]);
    switch (kind) {
        case SRV_INST_OWN:
            to->own_name = copy_bytes(value.data, value.size);
            return;
        case SRV_INST_TYPE:
            return place_service_instance(to, value.data);
        case SRV_INST_ENABLED:
            *to->flag = flag_of(value.data);
            return;
        default:
            break;
    }
    if (kind >= SRV_OWN) return take_srv_row(to, kind, value);
    if (kind >= INST_OWN) return take_inst_row(to, kind, value);
    if (kind >= INST_LIST) return take_list_row(to, kind, value);
    take_db_row(to, kind, value);
}

inline record_builder start_record() {
    record_builder builder = {};
    builder.cfg = zeroed<prsr_cfg>(1);
    builder.cfg->constant_one = 1;
    return builder;
}

// ---- The end of a record ------------------------------------------------------------------------

inline void free_list(char **list, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        free(list[i]);
    free(list);
}

inline void free_service(prsr_srv_cfg *srv) {
    free(srv->name);
    free_list(srv->preferred, srv->preferred_count);
    free(srv->preferred_enabled);
    free_list(srv->available, srv->available_count);
    free(srv->available_enabled);
    free_list(srv->env, srv->env_n);
    free(srv);
}

inline void free_record(prsr_cfg *cfg) {
    char *const strings[] = {cfg->sp_name, cfg->alias_ip, cfg->home,
                             cfg->spfile,  cfg->db_name,  cfg->role,
                             cfg->domain,  cfg->policy,   cfg->start_options};
    for (char *string : strings)
        free(string);
    for (uint32_t i = 0; i < cfg->instance_count; ++i) {
        free(cfg->instances[i]->node);
        free(cfg->instances[i]->name);
        free_list(cfg->instances[i]->env, cfg->instances[i]->env_n);
        free(cfg->instances[i]);
    }
    free(cfg->instances);
    for (uint32_t i = 0; i < cfg->service_count; ++i)
        free_service(cfg->services[i]);
    free(cfg->services);
    free_list(cfg->env, cfg->env_n);
    free(cfg);
}

}  // namespace keyview::bench
