// What each key means: one table, behind "keyviewctl explain" and the manual. And the way from a
// path to its row.
#include "admin/document/key_guide.h"

#include <iterator>

#include "admin/admin.h"

namespace keyview::admin {

// ---- The way ------------------------------------------------------------------------------------

static bool take(std::string_view *path, std::string_view head) {
    if (path->substr(0, head.size()) != head) return false;
    if (path->size() > head.size() && (*path)[head.size()] != '.') return false;
    path->remove_prefix(path->size() > head.size() ? head.size() + 1 : head.size());
    return true;
}

static bool take_name(std::string_view *path) {
    if (path->empty()) return false;
    size_t end = path->find('.');
    path->remove_prefix(end == path->npos ? path->size() : end + 1);
    return true;
}

static key_place in_list(const list_row &list, const char *name, std::string_view rest,
                         std::string pattern);

// rest is what is below the record's own key.
static key_place in_record(const record_table &record, std::string_view rest, bool typed,
                           const std::string &pattern) {
    key_place place;
    if (rest.empty()) return {&record, nullptr, false, pattern};
    if (typed && rest == TYPE_KEY) return {&record, nullptr, true, pattern + "." + TYPE_KEY};
    for (const field_row &row : record.fields) {
        if (rest == row.key) return {&record, &row, false, pattern + "." + row.key};
    }
    for (const list_row &list : record.lists) {
        const char *name = list.key == std::string_view("SERVICE") ? "<service>" : "<instance>";
        if (take(&rest, list.key)) return in_list(list, name, rest, pattern + "." + list.key);
    }
    // A key that only its subkeys need.
    for (const field_row &row : record.fields) {
        std::string_view key = row.key;
        if (take(&key, rest) && !key.empty())
            return {nullptr, nullptr, false, pattern + "." + std::string(rest)};
    }
    return {};
}

static key_place in_list(const list_row &list, const char *name, std::string_view rest,
                         std::string pattern) {
    if (rest.empty()) return {nullptr, nullptr, false, pattern};
    if (list.record->scoped) {
        (void)take_name(&rest);
        pattern += ".<scope>";
        if (rest.empty()) return {nullptr, nullptr, false, pattern};
    }
    (void)take_name(&rest);
    return in_record(*list.record, rest, list.type != nullptr, pattern + "." + name);
}

key_place place_of_key(std::string_view path) {
    constexpr const char *NAMES[] = {"<db>", "<name>", "<node>"};
    const char *const *name = NAMES;
    for (const list_row &section : SECTIONS) {
        if (name == std::end(NAMES)) break;
        std::string_view rest = path;
        if (take(&rest, section.key)) return in_list(section, *name, rest, section.key);
        ++name;
    }
    return {};
}

// ---- The table ----------------------------------------------------------------------------------

#define DB "DATABASE.DATABASES.<db>"
#define INST DB ".INSTANCE.<instance>"
#define SRV DB ".SERVICE.<service>"
#define SRVI SRV ".INSTANCES.<instance>"
#define STGE "DATABASE.STG.<scope>.<name>"
#define NODE "DATABASE.NODEAPPS.<node>"

static constexpr const char *TREE = "apply, set";
static constexpr const char *TEXT = "text with its zero byte, 1,024 bytes";
static constexpr const char *LONG_TEXT = "text with its zero byte, 1,048,576 bytes";
static constexpr const char *FLAG = "true or false with its zero byte, read in any case";
static constexpr const char *ENV = "list: each string with its zero byte, one zero byte more";
static constexpr const char *NAME = "the name in its registered case, with its zero byte";
static constexpr const char *NONE = "no value; its subkeys count";
static constexpr const char *EMPTY_FIELD = "the field of the record is null";
static constexpr const char *EMPTY_TEXT = "the field of the record is an empty text";
static constexpr const char *NO_LIST = "there are no strings";
static constexpr const char *NO_RECORD = "there is no such record";
static constexpr const char *FLAG_ABSENT =
    "the record says 0; \"enabled\" does not find it, and it cannot be enabled or disabled";

static constexpr key_meaning MEANINGS[] = {
    {"DATABASE.DATABASES", "the databases, a subkey each", TREE, "list", NONE,
     "no databases are listed"},
    {DB, "a database", TREE, "list, show, status, name", NAME, NO_RECORD},
    {DB ".DB_CLU_ALIAS", "what belongs to the cluster alias", TREE, "nobody", NONE,
     "the alias has no address"},
    {DB ".DB_CLU_ALIAS.IP", "the address of the cluster alias", TREE, "show", TEXT, EMPTY_FIELD},
    {DB ".TALVEN_HOME", "the software home", TREE, "show", TEXT, EMPTY_FIELD},
    {DB ".SPFILE", "the parameter file", TREE, "show", TEXT, EMPTY_FIELD},
    {DB ".DB_NAME", "the database's own name", TREE, "show", TEXT, EMPTY_FIELD},
    {DB ".ROLE", "the role of the database", "apply, set, role", "show, role, status",
     "PRIMARY, PHYSICAL_STANDBY, LOGICAL_STANDBY or SNAPSHOT_STANDBY with its zero byte, read in "
     "any case",
     "the field of the record is null; the role can be neither told nor set"},
    {DB ".START_OPTIONS", "options for a start", TREE, "show", TEXT, EMPTY_FIELD},
    {DB ".DOMAIN", "the domain", TREE, "show, domain", TEXT,
     "the field of the record is null; \"domain\" does not find it"},
    {DB ".POLICY", "the management policy; nobody parses it", TREE, "show", TEXT,
     "the record says AUTOMATIC"},
    {DB ".ENABLED", "whether the database is enabled", "apply, set, enable, disable",
     "show, status, enabled", FLAG, FLAG_ABSENT},
    {DB ".ENVIRONMENT", "the environment of the database", TREE, "show", ENV, NO_LIST},
    {DB ".INSTANCE", "the instances, a subkey each", TREE, "show, status, instance-on", NONE,
     "the database has no instances; \"instance-on\" fails"},
    {INST, "an instance", TREE, "show, status, name, instance-on", NAME, NO_RECORD},
    {INST ".NODE", "the node that runs the instance, in lower case", TREE,
     "show, status, roster, instance-on", TEXT,
     "the field of the record is null; \"roster\" and \"instance-on\" fail for the database"},
    {INST ".ENABLED", "whether the instance is enabled", "apply, set, enable, disable",
     "show, status, enabled", FLAG, FLAG_ABSENT},
    {INST ".ENVIRONMENT", "the environment of the instance", TREE, "show", ENV, NO_LIST},
    {DB ".SERVICE", "the services, a subkey each", TREE, "show, status", NONE,
     "the database has no services"},
    {SRV, "a service; a \".\" in its name is a \"*\" in the key", TREE, "show, status", NAME,
     NO_RECORD},
    {SRV ".RCNPOLICY", "the failover policy", TREE, "show, status, policy",
     "NONE, BASIC or PRECONNECT with its zero byte, in any case; AVAILABLE and MUTUAL mean "
     "PRECONNECT",
     "the record says 0, \"policy\" says NONE"},
    {SRV ".ENABLED", "whether the service is enabled", "apply, set, enable, disable",
     "show, status, enabled", FLAG, FLAG_ABSENT},
    {SRV ".ENVIRONMENT", "the environment of the service", TREE, "show", ENV, NO_LIST},
    {SRV ".INSTANCES", "the instances that may run the service, a subkey each", TREE,
     "show, status, roster, enable, disable", NONE,
     "the record has the service's name only; \"roster\" fails, and so does enabling it"},
    {SRVI, "an instance that may run the service", TREE, "show, status, roster", NAME, NO_RECORD},
    {SRVI ".TYPE", "whether the instance runs the service by preference or takes over", TREE,
     "show, status, roster, supported", "PREFERRED or AVAILABLE with its zero byte, in upper case",
     "the record leaves the instance out; \"roster\" fails"},
    {SRVI ".ENABLED", "whether the service is enabled on the instance",
     "apply, set, enable, disable", "show, status, enabled, supported", FLAG, FLAG_ABSENT},
    {"DATABASE.STG", "the storage manager entries, a subkey for each scope", TREE, "stg", NONE,
     "there are no entries"},
    {"DATABASE.STG.<scope>", "the entries of a scope, such as a node", TREE, "stg", NONE,
     "the scope has no entries"},
    {STGE, "a storage manager entry", TREE, "stg, stg-name", NAME, NO_RECORD},
    {STGE ".SPFILE", "the parameter file", TREE, "stg", LONG_TEXT, EMPTY_TEXT},
    {STGE ".TALVEN_HOME", "the software home", TREE, "stg", LONG_TEXT, EMPTY_TEXT},
    {STGE ".START_OPTIONS", "options for a start", TREE, "stg", LONG_TEXT, EMPTY_TEXT},
    {STGE ".VERSION", "the software version", TREE, "stg", LONG_TEXT, EMPTY_TEXT},
    {STGE ".ENABLED", "whether the entry is enabled", TREE, "stg, stg-enabled", FLAG,
     "the record says 0; \"stg-enabled\" does not find it"},
    {STGE ".ENVIRONMENT", "the environment of the entry", TREE, "stg", ENV, NO_LIST},
    {"DATABASE.NODEAPPS", "the nodes with applications, a subkey each", TREE, "nodeapps", NONE,
     "no node has applications"},
    {NODE, "a node", TREE, "nodeapps", NAME, NO_RECORD},
    {NODE ".TALVEN_HOME", "the software home", TREE, "nodeapps", TEXT, EMPTY_FIELD},
    {NODE ".VIP", "the network address; an empty one sends readers to VIP.IP", TREE, "nodeapps",
     "text with its zero byte, 1,024 bytes; an empty one has no bytes", EMPTY_FIELD},
    {NODE ".VIP.IP", "the network address, if VIP is empty", TREE, "nodeapps", TEXT, EMPTY_TEXT},
    {NODE ".VIP.NETMASK", "the netmask", TREE, "nodeapps", TEXT, EMPTY_FIELD},
    {NODE ".VIP.INTERFACES", "the network interfaces", TREE, "nodeapps", TEXT, EMPTY_FIELD},
    {NODE ".ENVIRONMENT", "the environment of the applications", TREE, "nodeapps", ENV, NO_LIST},
};

std::vector<key_meaning> key_meanings() {
    return {std::begin(MEANINGS), std::end(MEANINGS)};
}

std::optional<key_meaning> meaning_of(std::string_view path) {
    std::string pattern = place_of_key(path).pattern;
    for (const key_meaning &row : MEANINGS) {
        if (path == row.path || pattern == row.path) return row;
    }
    return std::nullopt;
}

// ---- Fields of documents ------------------------------------------------------------------------

static const char *type_word(value_kind kind) {
    constexpr const char *WORDS[] = {"text", "text", "word", "flag", "list of texts"};
    return WORDS[static_cast<size_t>(kind)];
}

static void add_fields(const list_row &list, const std::string &before,
                       std::vector<document_field> *out) {
    const std::string record = before + list.field + "[]";
    if (list.record->scoped) out->push_back({record, "scope", "name", "an element of the path", 0});
    out->push_back({record, "name", "name", "the record's own key", 0});
    for (const field_row &row : list.record->fields)
        out->push_back({record, row.field, type_word(row.kind), row.key, row.limit});
    for (const list_row &below : list.record->lists)
        out->push_back({record, below.field, "records", below.key, 0});
    for (const list_row &below : list.record->lists)
        add_fields(below, record + ".", out);
}

std::vector<document_field> document_fields() {
    std::vector<document_field> out;
    for (const list_row &section : SECTIONS)
        add_fields(section, "", &out);
    return out;
}

}  // namespace keyview::admin
