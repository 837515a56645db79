// From the keys of the tree to the rows of the compared stores.
#include "bench/peer_rows.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>

namespace keyview::bench {

// What the last element of a path makes of the row: of the database, of an instance, of a service
// or of an instance of a service.
using kind_table = std::map<std::string, row_kind>;

static const kind_table DB_KINDS = {
    {"", DB_OWN},
    {"DB_CLU_ALIAS", DB_ALIAS},
    {"IP", DB_ALIAS_IP},
    {"TALVEN_HOME", DB_HOME},
    {"SPFILE", DB_SPFILE},
    {"DB_NAME", DB_DB_NAME},
    {"ROLE", DB_ROLE},
    {"START_OPTIONS", DB_START_OPTIONS},
    {"POLICY", DB_POLICY},
    {"DOMAIN", DB_DOMAIN},
    {"ENABLED", DB_ENABLED},
    {"ENVIRONMENT", DB_ENV},
    {"INSTANCE", INST_LIST},
    {"SERVICE", SRV_LIST},
};
static const kind_table INST_KINDS = {
    {"", INST_OWN}, {"NODE", INST_NODE}, {"ENABLED", INST_ENABLED}, {"ENVIRONMENT", INST_ENV}};
static const kind_table SRV_KINDS = {{"", SRV_OWN},
                                     {"ENVIRONMENT", SRV_ENV},
                                     {"RCNPOLICY", SRV_POLICY},
                                     {"ENABLED", SRV_ENABLED},
                                     {"INSTANCES", SRV_INST_LIST}};
static const kind_table SRV_INST_KINDS = {
    {"", SRV_INST_OWN}, {"TYPE", SRV_INST_TYPE}, {"ENABLED", SRV_INST_ENABLED}};

static std::vector<std::string> elements_of(const std::string &path) {
    std::vector<std::string> elements;
    for (size_t at = 0, end = 0; end != path.npos; at = end + 1) {
        end = path.find('.', at);
        elements.push_back(path.substr(at, end == path.npos ? end : end - at));
    }
    return elements;
}

static char byte_of(row_kind kind) {
    return static_cast<char>(kind);
}

// The name of a row. elements starts with the database; an element of a list is followed by a zero
// byte, as the database is.
static std::string row_name(const std::vector<std::string> &elements) {
    const kind_table *kinds = &DB_KINDS;
    std::string name = elements[0] + '\0';
    size_t at = 1;
    auto enter = [&](row_kind list, const kind_table *next) {
        name += byte_of(list);
        name += elements[at + 1] + '\0';
        kinds = next;
        at += 2;
    };
    if (at + 1 < elements.size() && elements[at] == "INSTANCE") enter(INST_LIST, &INST_KINDS);
    if (at + 1 < elements.size() && elements[at] == "SERVICE") enter(SRV_LIST, &SRV_KINDS);
    if (at + 1 < elements.size() && elements[at] == "INSTANCES") {
        enter(SRV_INST_LIST, &SRV_INST_KINDS);
    }
    return name + byte_of(kinds->at(at < elements.size() ? elements.back() : std::string()));
}

static std::string counts_value(const list_counts &counts) {
    return {reinterpret_cast<const char *>(&counts), sizeof counts};
}

// Counts what belongs to each list and writes it into the row of the list.
static void write_counts(std::vector<peer_row> *rows) {
    std::map<std::string, list_counts> lists;
    auto list_of = [&](const std::string &name) -> list_counts & {
        const size_t element = name.rfind('\0', name.size() - 3);  // the zero byte before it
        return lists[name.substr(0, element + 2)];
    };
    for (const peer_row &row : *rows) {
        const char kind = row.name.back();
        if (kind == byte_of(INST_OWN) || kind == byte_of(SRV_OWN)) ++list_of(row.name).first;
        if (kind != byte_of(SRV_INST_TYPE)) continue;
        list_counts &of_service = list_of(row.name);
        ++(row.value[0] == 'P' ? of_service.first : of_service.second);
    }
    for (peer_row &row : *rows) {
        const char kind = row.name.back();
        const bool list = kind == byte_of(INST_LIST) || kind == byte_of(SRV_LIST) ||
                          kind == byte_of(SRV_INST_LIST);
        if (list) row.value = counts_value(lists[row.name]);
    }
}

std::vector<peer_row> peer_rows(const std::vector<tree_key> &keys) {
    std::vector<peer_row> rows;
    for (const tree_key &key : keys) {
        std::vector<std::string> elements = elements_of(key.path);
        elements.erase(elements.begin(), elements.begin() + 2);  // DATABASE.DATABASES
        rows.push_back({row_name(elements), key.value});
    }
    write_counts(&rows);
    std::sort(rows.begin(), rows.end(),
              [](const peer_row &a, const peer_row &b) { return a.name < b.name; });
    return rows;
}

std::string row_prefix(const char *database) {
    return folded(database) + '\0';
}

}  // namespace keyview::bench
