// keyviewctl over large registries: what a document of 100,000 databases costs beside the same rows
// written by hand, and how the cost of a database grows from 1,000 to 100,000 of them.
#include <lmdb.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "bench/failure.h"
#include "bench/rows.h"
#include "bench/tool_scale.h"
#include "bench/workload.h"

namespace keyview::bench {

constexpr char BY_HAND[] = "apply of 100,000 databases / nlohmann::json and LMDB by hand";
constexpr char MEMORY[] = "peak memory of that apply / its document";
constexpr char DESCRIPTORS[] = "open descriptors of that apply";
constexpr char GROWTH[] = ", per database of 100,000 / of 1,000";

constexpr int ONE = 1;
constexpr int SMALL_SCALE = 1000;
constexpr int LARGE_SCALE = 100000;

// ---- By hand ------------------------------------------------------------------------------------

static void check(int rc) {
    require(rc == MDB_SUCCESS, mdb_strerror(rc));
}

static void put(MDB_txn *txn, MDB_dbi dbi, const std::string &path, const std::string &text) {
    MDB_val name = {path.size(), const_cast<char *>(path.data())};
    MDB_val value = {text.size() + 1, const_cast<char *>(text.c_str())};
    check(mdb_put(txn, dbi, &name, &value, 0));
}

// What a program for this one purpose would do: no checks, no plan, no locks but the engine's own.
static void apply_by_hand(const std::string &document, const std::string &directory) {
    std::ifstream text(document);
    const nlohmann::json parsed = nlohmann::json::parse(text);
    MDB_env *env = nullptr;
    MDB_txn *txn = nullptr;
    MDB_dbi dbi = 0;
    require_call(mkdir(directory.c_str(), 0700) == 0, "mkdir");
    check(mdb_env_create(&env));
    check(mdb_env_set_mapsize(env, size_t{256} << 20));
    check(mdb_env_open(env, directory.c_str(), MDB_NOTLS, 0600));
    check(mdb_txn_begin(env, nullptr, 0, &txn));
    check(mdb_dbi_open(txn, nullptr, 0, &dbi));
    for (const auto &database : parsed.at("databases")) {
        const auto &name = database.at("name").get_ref<const std::string &>();
        const std::string path = "DATABASE.DATABASES." + folded(name);
        put(txn, dbi, path, name);
        put(txn, dbi, path + ".ENABLED", database.at("enabled").get<bool>() ? "true" : "false");
    }
    check(mdb_txn_commit(txn));
    mdb_env_close(env);
}

// ---- Growth -------------------------------------------------------------------------------------

namespace {

struct scales {
    explicit scales(const std::string &directory)
        : one(directory, embedded_urls(directory), ONE),
          small(directory, embedded_urls(directory), SMALL_SCALE),
          large(directory, embedded_urls(directory), LARGE_SCALE) {}

    tool_scale one;
    tool_scale small;
    tool_scale large;
};

// What a database adds to a command, microseconds of the processors, one figure a round.
struct growth {
    series large;
    series small;
};

}  // namespace

// The start of a program and what a command costs whatever the size are what it costs with one database.
// The large one runs amid the others: the machine is not always equally fast.
static process_cost add_round(scales *all, const scale_command &command, growth *to) {
    constexpr int RUNS = 21;
    series one, small;
    process_cost large = {};
    for (int i = 0; i < RUNS; ++i) {
        one.push_back(all->one.run(command).cpu_us);
        small.push_back(all->small.run(command).cpu_us);
        if (i == RUNS / 2) large = all->large.run(command);
    }
    const double fixed = median(one);
    to->small.push_back((median(small) - fixed) / (SMALL_SCALE - ONE));
    to->large.push_back((large.cpu_us - fixed) / (LARGE_SCALE - ONE));
    return large;
}

static void measure_growth(const bench_setup &setup, scales *all, const scale_command &command) {
    constexpr double ENOUGH_US = 4e6;
    const std::string name = command.name + std::string(GROWTH);
    if (!setup.to->wants({name.c_str()})) return;
    growth found;
    double passed_us = 0;
    for (int round = 0; round < 3 && passed_us < ENOUGH_US; ++round)
        passed_us += add_round(all, command, &found).wall_us;
    setup.to->ratio(name.c_str(), found.large, found.small, 1.5);
}

static void measure_apply(const bench_setup &setup, scales *all, const std::string &directory) {
    const std::string growth_name = APPLY.name + std::string(GROWTH);
    if (!setup.to->wants({BY_HAND, MEMORY, growth_name.c_str()})) return;
    const auto size = static_cast<double>(std::filesystem::file_size(all->large.document()));
    growth found;
    for (int round = 0; round < 3; ++round)
        (void)add_round(all, APPLY, &found);
    series passed_us, by_hand_us, peaks;
    for (int pair = 0; pair < 7; ++pair) {
        const process_cost cost = all->large.run(APPLY);
        passed_us.push_back(cost.wall_us);
        peaks.push_back(cost.peak_bytes);
        const double start = now_us();
        apply_by_hand(all->large.document(), directory + "/by-hand");
        by_hand_us.push_back(now_us() - start);
        std::filesystem::remove_all(directory + "/by-hand");
    }
    setup.to->ratio(BY_HAND, passed_us, by_hand_us, 3);
    setup.to->ratio(growth_name.c_str(), found.large, found.small, 1.5);
    const auto in_mib = [](double bytes) {
        char text[32];
        (void)std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1 << 20));
        return std::string(text);
    };
    setup.to->figure(MEMORY, in_mib(median(peaks)), in_mib(size), median(peaks) / size, 12);
}

static void measure_descriptors(const bench_setup &setup, scales *all) {
    if (!setup.to->wants({DESCRIPTORS})) return;
    constexpr int LIMIT = 128;
    const double most = all->large.run(APPLY, LIMIT).descriptors;
    setup.to->figure(DESCRIPTORS, std::to_string(static_cast<int>(most)) + " descriptors",
                     std::to_string(LIMIT) + " are allowed", most, 64);
}

static bool wants_any(const report &table) {
    if (table.wants({BY_HAND, MEMORY, DESCRIPTORS, (APPLY.name + std::string(GROWTH)).c_str()}))
        return true;
    for (const scale_command &command : OTHER_COMMANDS)
        if (table.wants({(command.name + std::string(GROWTH)).c_str()})) return true;
    return false;
}

void scale_rows(const bench_setup &setup) {
    if (!wants_any(*setup.to)) return;
    const std::string directory = setup.directory + "/scale";
    require_call(mkdir(directory.c_str(), 0700) == 0, "mkdir");
    scales all(directory);
    measure_apply(setup, &all, directory);
    measure_descriptors(setup, &all);
    for (const scale_command &command : OTHER_COMMANDS)
        measure_growth(setup, &all, command);
}

}  // namespace keyview::bench
