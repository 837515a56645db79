// The keys that the benchmarks work on.
#include "bench/workload.h"

#include <algorithm>
#include <cstdio>

namespace keyview::bench {

static const std::string ROOT = "DATABASE.DATABASES.";
static const std::string ENVIRONMENT("LANG=C\0TZ=UTC\0", 14);  // the literal ends it with one more

static void add(std::vector<tree_key> *keys, const std::string &path, const std::string &text) {
    keys->push_back({path, text.empty() ? text : text + '\0'});
}

static void add_service(std::vector<tree_key> *keys, const std::string &path,
                        const std::string &name, const record_size &size) {
    add(keys, path, name);
    add(keys, path + ".ENVIRONMENT", ENVIRONMENT);
    add(keys, path + ".RCNPOLICY", "BASIC");
    add(keys, path + ".ENABLED", "true");
    add(keys, path + ".INSTANCES", "");
    for (int i = 1; i <= size.instances; ++i) {
        const std::string own = size.database + std::to_string(i);
        const std::string instance = path + ".INSTANCES." + folded(own);
        add(keys, instance, own);
        add(keys, instance + ".TYPE", i % 2 == 0 ? "AVAILABLE" : "PREFERRED");
        add(keys, instance + ".ENABLED", "true");
    }
}

static void add_instance(std::vector<tree_key> *keys, const std::string &db, const std::string &own,
                         int number) {
    const std::string path = db + ".INSTANCE." + folded(own);
    add(keys, path, own);
    add(keys, path + ".NODE", "node" + std::to_string(number));
    add(keys, path + ".ENABLED", "true");
    add(keys, path + ".ENVIRONMENT", ENVIRONMENT);
}

std::string folded(const std::string &text) {
    std::string lower = text;
    for (char &c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c | 0x20);
    return lower;
}

std::vector<tree_key> record_keys(const record_size &size) {
    const std::string db = ROOT + folded(size.database);
    const char *const fields[][2] = {
        {".DB_CLU_ALIAS", ""},       {".DB_CLU_ALIAS.IP", "10.1.0.100"},
        {".TALVEN_HOME", "/opt/db"}, {".SPFILE", "+DATA/sales/spfile.ora"},
        {".DB_NAME", "sales"},       {".ROLE", "PRIMARY"},
        {".START_OPTIONS", "open"},  {".POLICY", "AUTOMATIC"},
        {".DOMAIN", "example.com"},  {".ENABLED", "true"},
        {".INSTANCE", ""},           {".SERVICE", ""},
    };
    std::vector<tree_key> keys;
    add(&keys, db, size.database);
    for (const auto &field : fields)
        add(&keys, db + field[0], field[1]);
    add(&keys, db + ".ENVIRONMENT", ENVIRONMENT);
    for (int i = 1; i <= size.instances; ++i)
        add_instance(&keys, db, size.database + std::to_string(i), i);
    for (int i = 1; i <= size.services; ++i) {
        const std::string own = "orders" + std::to_string(i) + ".example.com";
        std::string element = own;
        std::replace(element.begin(), element.end(), '.', '*');
        add_service(&keys, db + ".SERVICE." + element, own, size);
    }
    return keys;
}

std::vector<tree_key> list_keys(int databases) {
    std::vector<tree_key> keys;
    for (int i = 0; i < databases; ++i) {
        char own[16];
        (void)std::snprintf(own, sizeof own, "Sales%06d", i);
        const std::string path = ROOT + folded(own);
        add(&keys, path, own);
        add(&keys, path + ".ENABLED", "true");
    }
    return keys;
}

}  // namespace keyview::bench
