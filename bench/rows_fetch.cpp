// A fetch with its release beside the same record built by hand from other stores.
#include "bench/failure.h"
#include "bench/peer_json.h"
#include "bench/peer_lmdb.h"
#include "bench/peer_sqlite.h"
#include "bench/record_builder.h"
#include "bench/record_compare.h"
#include "bench/registry.h"
#include "bench/rows.h"

namespace keyview::bench {

constexpr char SMALL_ENGINE[] = "fetch + release small / LMDB pass";
constexpr char TYPICAL_ENGINE[] = "fetch + release typical / LMDB pass";
constexpr char LARGE_ENGINE[] = "fetch + release large / LMDB pass";
constexpr char FIRST_FETCH[] = "context, first fetch typical, end / LMDB pass";
constexpr char ENGINE_BY_KEY[] = "fetch typical / LMDB key by key";
constexpr char RANGE_SELECT[] = "fetch typical / SQLite range select";
constexpr char SELECT_BY_KEY[] = "fetch typical / SQLite key by key";
constexpr char NLOHMANN[] = "fetch typical / nlohmann::json file";
constexpr char SIMDJSON[] = "fetch typical / simdjson file";

namespace {

// The two engines with one database in them.
struct engines {
    engines(const std::string &directory, const record_size &size)
        : rows(peer_rows(record_keys(size))),
          prefix(row_prefix(size.database)),
          lmdb(directory + "/" + size.database + ".lmdb", rows),
          sqlite(directory + "/" + size.database + ".sqlite", rows) {}

    std::vector<peer_row> rows;
    std::string prefix;
    lmdb_peer lmdb;
    sqlite_peer sqlite;
};

}  // namespace

static void expect_same(const prsr_cfg *ours, prsr_cfg *theirs, const char *what) {
    const bool same = same_record(*ours, *theirs);
    free_record(theirs);
    if (!same) throw std::runtime_error(std::string("another record from ") + what);
}

static void measure_against_engine(const bench_setup &setup, session *reader,
                                   const record_size &size, const char *name, double goal) {
    if (!setup.to->wants({name})) return;
    engines stores(setup.directory, size);
    prsr_cfg *cfg = nullptr;
    require(prsr_fetch_db_config(reader->status, reader->ctx, size.database, &cfg) == PRSR_SUCCESS,
            "the fetch failed");
    expect_same(cfg, stores.lmdb.fetch(stores.prefix), name);
    (void)prsr_release_db_config(reader->status, reader->ctx, cfg);
    const auto figures =
        interleave({51, 8}, {[&] { reader->fetch(size.database); },
                             [&] { free_record(stores.lmdb.fetch(stores.prefix)); }});
    setup.to->ratio(name, figures[0], figures[1], goal);
}

static void verify_all(session *reader, engines *stores, simdjson_peer *simdjson,
                       const std::string &file) {
    prsr_cfg *cfg = nullptr;
    require(
        prsr_fetch_db_config(reader->status, reader->ctx, TYPICAL.database, &cfg) == PRSR_SUCCESS,
        "the fetch failed");
    write_json(file, *cfg);
    expect_same(cfg, stores->lmdb.fetch(stores->prefix), "the LMDB pass");
    expect_same(cfg, stores->lmdb.fetch_by_key(stores->rows), "LMDB key by key");
    expect_same(cfg, stores->sqlite.fetch(stores->prefix), "the SQLite range select");
    expect_same(cfg, stores->sqlite.fetch_by_key(stores->rows), "SQLite key by key");
    expect_same(cfg, fetch_nlohmann(file), "nlohmann::json");
    expect_same(cfg, simdjson->fetch(file), "simdjson");
    (void)prsr_release_db_config(reader->status, reader->ctx, cfg);
}

static void measure_typical(const bench_setup &setup, session *reader) {
    if (!setup.to->wants({TYPICAL_ENGINE, FIRST_FETCH, ENGINE_BY_KEY, RANGE_SELECT, SELECT_BY_KEY,
                          NLOHMANN, SIMDJSON})) {
        return;
    }
    engines stores(setup.directory, TYPICAL);
    simdjson_peer simdjson;
    const std::string file = setup.directory + "/typical.json";
    verify_all(reader, &stores, &simdjson, file);
    const auto figures =
        interleave({151, 3}, {[&] { reader->fetch(TYPICAL.database); },
                              [&] { free_record(stores.lmdb.fetch(stores.prefix)); },
                              [&] { free_record(stores.lmdb.fetch_by_key(stores.rows)); },
                              [&] { free_record(stores.sqlite.fetch(stores.prefix)); },
                              [&] { free_record(stores.sqlite.fetch_by_key(stores.rows)); },
                              [&] { free_record(fetch_nlohmann(file)); },
                              [&] { free_record(simdjson.fetch(file)); },
                              [&] { session(setup.url).fetch(TYPICAL.database); }});
    setup.to->ratio(TYPICAL_ENGINE, figures[0], figures[1], 2.2);
    setup.to->ratio(FIRST_FETCH, figures[7], figures[1], NO_GOAL);
    setup.to->ratio(ENGINE_BY_KEY, figures[0], figures[2], NO_GOAL);
    setup.to->ratio(RANGE_SELECT, figures[0], figures[3], 0.70);
    setup.to->ratio(SELECT_BY_KEY, figures[0], figures[4], NO_GOAL);
    setup.to->ratio(NLOHMANN, figures[0], figures[5], 0.35);
    setup.to->ratio(SIMDJSON, figures[0], figures[6], 2.0);
}

void fetch_rows(const bench_setup &setup) {
    session reader(setup.url);
    measure_typical(setup, &reader);
    measure_against_engine(setup, &reader, LARGE, LARGE_ENGINE, 2.2);
    measure_against_engine(setup, &reader, SMALL, SMALL_ENGINE, 2.5);
}

}  // namespace keyview::bench
