// The list of all databases with its release beside the same list from other stores, and how its
// cost grows.
#include <algorithm>
#include <memory>

#include "bench/failure.h"
#include "bench/peer_json.h"
#include "bench/peer_lmdb.h"
#include "bench/peer_sqlite.h"
#include "bench/record_builder.h"
#include "bench/record_compare.h"
#include "bench/registry.h"
#include "bench/rows.h"

namespace keyview::bench {

constexpr char ENGINE_1K[] = "list of 1,000 databases / LMDB pass";
constexpr char ENGINE_10K[] = "list of 10,000 databases / LMDB pass";
constexpr char ENGINE_100K[] = "list of 100,000 databases / LMDB pass";
constexpr char SELECT_100K[] = "list of 100,000 databases / SQLite select";
constexpr char JSON_100K[] = "list of 100,000 databases / nlohmann::json file";
constexpr char GROWTH[] = "list, per database of 100,000 / of 1,000";

constexpr int COUNTS[] = {1000, 10000, 100000};

// A row a database, its own value under its folded name.
static std::vector<peer_row> name_rows(const std::vector<tree_key> &keys) {
    std::vector<peer_row> rows;
    for (const tree_key &key : keys) {
        const bool own = std::count(key.path.begin(), key.path.end(), '.') == 2;
        if (own) rows.push_back({key.path.substr(key.path.rfind('.') + 1), key.value});
    }
    return rows;
}

namespace {

// One length of list in every store.
struct listed {
    listed(const std::string &base, const std::vector<tree_key> &keys, size_t databases)
        : count(static_cast<double>(databases)),
          json(base + ".json"),
          reader(make_registry(base + ".registry", keys)),
          lmdb(base + ".lmdb", name_rows(keys)),
          sqlite(base + ".sqlite", name_rows(keys)) {
        name_list names = lmdb.list();
        write_json_list(json, names.names, names.count);
        free_list(names.names, names.count);
    }

    void list() {
        name_list found = ask();
        (void)prsr_release_db_list(reader.status, reader.ctx, found.names, found.count);
    }

    name_list ask() {
        name_list found = {};
        require(prsr_list_db(reader.status, reader.ctx, &found.names, &found.count) == PRSR_SUCCESS,
                "the listing failed");
        return found;
    }

    void verify() {
        name_list ours = ask();
        require(ours.count == static_cast<uint32_t>(count), "the listing is incomplete");
        for (const name_list &theirs : {lmdb.list(), sqlite.list(), list_nlohmann(json)}) {
            require(same_list(ours.names, ours.count, theirs.names, theirs.count), "another list");
            free_list(theirs.names, theirs.count);
        }
        (void)prsr_release_db_list(reader.status, reader.ctx, ours.names, ours.count);
    }

    double count;
    std::string json;
    session reader;
    lmdb_peer lmdb;
    sqlite_peer sqlite;
};

}  // namespace

static void release(const name_list &list) {
    free_list(list.names, list.count);
}

static series per_database(series figures, double count) {
    for (double &figure : figures)
        figure /= count;
    return figures;
}

static void measure_lists(const bench_setup &setup, listed *k1, listed *k10, listed *k100) {
    const auto figures = interleave(
        {25, 12}, {[&] { k1->list(); }, [&] { release(k1->lmdb.list()); }, [&] { k10->list(); },
                   [&] { release(k10->lmdb.list()); }, [&] { k100->list(); },
                   [&] { release(k100->lmdb.list()); }, [&] { release(k100->sqlite.list()); },
                   [&] { release(list_nlohmann(k100->json)); }});
    setup.to->ratio(ENGINE_1K, figures[0], figures[1], NO_GOAL);
    setup.to->ratio(ENGINE_10K, figures[2], figures[3], NO_GOAL);
    setup.to->ratio(ENGINE_100K, figures[4], figures[5], 3.5);
    setup.to->ratio(SELECT_100K, figures[4], figures[6], NO_GOAL);
    setup.to->ratio(JSON_100K, figures[4], figures[7], NO_GOAL);
    setup.to->ratio(GROWTH, per_database(figures[4], k100->count),
                    per_database(figures[0], k1->count), 1.2);
}

void list_rows(const bench_setup &setup) {
    if (!setup.to->wants({ENGINE_1K, ENGINE_10K, ENGINE_100K, SELECT_100K, JSON_100K, GROWTH})) {
        return;
    }
    std::vector<std::unique_ptr<listed>> lists;
    for (const int count : COUNTS) {
        lists.push_back(std::make_unique<listed>(setup.directory + "/list" + std::to_string(count),
                                                 list_keys(count), static_cast<size_t>(count)));
        lists.back()->verify();
    }
    measure_lists(setup, lists[0].get(), lists[1].get(), lists[2].get());
}

}  // namespace keyview::bench
