// What a fetch costs that finds no copies of an earlier one: after a change of the database, in turn
// over more databases than copies are kept of, and as the first one of a process. Floors show how much
// of that is the processor's cold caches: a fetch after a change of another database, and the engine
// alone. And what of a fetch the calls alone take that the library has to make.
#include <algorithm>
#include <memory>

#include "bench/byte_lock.h"
#include "bench/child.h"
#include "bench/failure.h"
#include "bench/peer_lmdb.h"
#include "bench/record_builder.h"
#include "bench/registry.h"
#include "bench/rows.h"
#include "bench/scratch.h"

namespace keyview::bench {

constexpr char AFTER_SET[] = "fetch typical after a set of one of its flags / quiet";
constexpr char AFTER_OTHER[] = "floor: fetch typical after a set of another database / quiet";
constexpr char AFTER_COMMIT[] = "floor: LMDB pass after a commit of one of its rows / quiet";
constexpr char IN_TURN[] = "fetch in turn over 1,000 typical databases / quiet fetch of one";
constexpr char PASS_IN_TURN[] = "floor: LMDB pass in turn over the same / quiet pass of one";
constexpr char FIRST[] = "first fetch typical in a process / quiet";
constexpr char FIRST_PASS[] = "floor: first LMDB pass in a process / quiet pass";
constexpr char FIRST_TO_PASS[] = "first fetch typical in a process / first LMDB pass in a process";
constexpr char CALLS[] = "fetch + release typical / the library's calls alone";
constexpr char CALLS_ENGINE[] = "floor: the library's calls alone and a bare OFD pair / LMDB pass";
constexpr char LARGE_CALLS[] = "fetch + release large / the library's calls alone";
constexpr char LARGE_CALLS_ENGINE[] =
    "floor: the library's calls alone and a bare OFD pair, large / LMDB pass";
constexpr char SMALL_CALLS[] = "fetch + release small / the library's calls alone";
constexpr char SMALL_CALLS_ENGINE[] =
    "floor: the library's calls alone and a bare OFD pair, small / LMDB pass";

constexpr int DATABASES = 1000;

static double time_once(const std::function<void()> &work) {
    const double start = now_us();
    work();
    return now_us() - start;
}

// ---- After a change -----------------------------------------------------------------------------

static void measure_after_set(const bench_setup &setup) {
    if (!setup.to->wants({AFTER_SET, AFTER_OTHER, AFTER_COMMIT})) return;
    constexpr int ROUNDS = 151;
    constexpr int FETCHES = 20;
    const std::string url = make_record_registry(setup.directory + "/changed", {SMALL, TYPICAL});
    const std::vector<peer_row> rows = peer_rows(record_keys(TYPICAL));
    const std::string prefix = row_prefix(TYPICAL.database);
    lmdb_peer engine(setup.directory + "/changed-lmdb", rows);
    session reader(url);
    session writer(url);
    const auto fetch = [&] { reader.fetch(TYPICAL.database); };
    const auto pass = [&] { free_record(engine.fetch(prefix)); };
    const auto time_quiet = [](const std::function<void()> &work) {
        work();
        return time_once([&] {
                   for (int i = 0; i < FETCHES; ++i)
                       work();
               }) /
               FETCHES;
    };
    const auto set = [&](const char *database, int32_t enabled) {
        require(prsr_set_db_enabled(writer.status, writer.ctx, database, enabled) == PRSR_SUCCESS,
                "the set failed");
    };
    series after, after_other, quiet, pass_after, pass_quiet;
    for (int round = 0; round < ROUNDS; ++round) {
        quiet.push_back(time_quiet(fetch));
        set(TYPICAL.database, round % 2);
        after.push_back(time_once(fetch));
        set(SMALL.database, round % 2);
        after_other.push_back(time_once(fetch));
        pass_quiet.push_back(time_quiet(pass));
        engine.commit({rows[rows.size() / 2]});
        pass_after.push_back(time_once(pass));
    }
    setup.to->ratio(AFTER_SET, after, quiet, 2.5);
    setup.to->ratio(AFTER_OTHER, after_other, quiet, NO_GOAL);
    setup.to->ratio(AFTER_COMMIT, pass_after, pass_quiet, NO_GOAL);
}

// ---- In turn ------------------------------------------------------------------------------------

static std::vector<std::string> typical_names() {
    std::vector<std::string> names;
    for (int i = 0; i < DATABASES; ++i)
        names.push_back("Typical" + std::to_string(1000 + i));
    return names;
}

// One apply for some of them at a time, which needs less memory.
static std::string make_typical_registry(const std::string &directory,
                                         const std::vector<std::string> &names) {
    constexpr size_t AT_ONCE = 100;
    for (size_t first = 0; first < names.size(); first += AT_ONCE) {
        std::vector<record_size> some;
        for (size_t i = first; i < std::min(names.size(), first + AT_ONCE); ++i)
            some.push_back({names[i].c_str(), TYPICAL.instances, TYPICAL.services});
        (void)make_record_registry(directory, some);
    }
    return "lmdb:" + directory;
}

static std::vector<peer_row> all_rows(const std::vector<std::string> &names) {
    std::vector<peer_row> rows;
    for (const std::string &name : names) {
        std::vector<peer_row> more =
            peer_rows(record_keys({name.c_str(), TYPICAL.instances, TYPICAL.services}));
        std::move(more.begin(), more.end(), std::back_inserter(rows));
    }
    return rows;
}

static void measure_in_turn(const bench_setup &setup) {
    if (!setup.to->wants({IN_TURN, PASS_IN_TURN})) return;
    const std::vector<std::string> names = typical_names();
    session reader(make_typical_registry(setup.directory + "/in-turn", names));
    lmdb_peer engine(setup.directory + "/in-turn-lmdb", all_rows(names));
    size_t next = 0;
    const auto next_name = [&]() -> const std::string & { return names[next++ % names.size()]; };
    const auto figures =
        interleave({15, 60}, {[&] { reader.fetch(next_name().c_str()); },
                              [&] { reader.fetch(names[0].c_str()); },
                              [&] { free_record(engine.fetch(row_prefix(next_name().c_str()))); },
                              [&] { free_record(engine.fetch(row_prefix(names[0].c_str()))); }});
    setup.to->ratio(IN_TURN, figures[0], figures[1], 2.5);
    setup.to->ratio(PASS_IN_TURN, figures[2], figures[3], NO_GOAL);
}

// ---- The first of a process ---------------------------------------------------------------------

static void measure_first(const bench_setup &setup) {
    if (!setup.to->wants({FIRST, FIRST_PASS, FIRST_TO_PASS})) return;
    constexpr int ROUNDS = 51;
    const std::string engine = setup.directory + "/first-lmdb", programs = program_directory();
    const session other(setup.url);  // the process is neither the first nor the last user
    const lmdb_peer other_pass(engine, peer_rows(record_keys(TYPICAL)));
    series first, quiet, first_pass, quiet_pass;
    const auto add = [](const std::vector<std::string> &program, series *its_first, series *rest) {
        const auto took = figures_of(program);
        require(took.size() == 2, "a program prints no times");
        its_first->push_back(took[0]);
        rest->push_back(took[1]);
    };
    for (int round = 0; round < ROUNDS; ++round) {
        add({programs + "/fetch_once", setup.url, folded(TYPICAL.database), "40"}, &first, &quiet);
        add({programs + "/pass_once", engine, TYPICAL.database, "40"}, &first_pass, &quiet_pass);
    }
    setup.to->ratio(FIRST, first, quiet, 3);
    setup.to->ratio(FIRST_PASS, first_pass, quiet_pass, NO_GOAL);
    setup.to->ratio(FIRST_TO_PASS, first, first_pass, NO_GOAL);
}

// ---- The calls alone ----------------------------------------------------------------------------

// At about the same time one process was seen to be slower than another one by half in all that it did.
// So each figure of a round is that of a new process.
static void measure_calls(const bench_setup &setup, const record_size &size, const char *to_calls,
                          const char *floor_to_pass) {
    if (!setup.to->wants({to_calls, floor_to_pass})) return;
    constexpr int ROUNDS = 31;
    const std::string engine = setup.directory + "/calls-" + size.database;
    const lmdb_peer other_pass(engine, peer_rows(record_keys(size)));
    const session other(setup.url);
    const byte_lock bare(setup.directory + "/byte-" + size.database);
    const int keys = size.services * size.instances;
    const std::string many = std::to_string(2 + 32000 / keys),
                      some = std::to_string(3 + 997 / keys);
    const auto last_of = [](const std::string &program, const std::vector<std::string> &words) {
        std::vector<std::string> all = {program_directory() + "/" + program};
        all.insert(all.end(), words.begin(), words.end());
        const auto printed = figures_of(all);
        require(!printed.empty() && printed.back() > 0, "a program prints no time");
        return printed.back();
    };
    series fetches, calls, floors, passes;
    for (int round = 0; round < ROUNDS; ++round) {
        fetches.push_back(last_of("fetch_once", {setup.url, folded(size.database), some}));
        passes.push_back(last_of("pass_once", {engine, size.database, some}));
        calls.push_back(last_of("library_cost", {many, size.database}));
        const double lock = median(interleave({3, 1}, {[&] { bare.take_and_release(); }})[0]);
        floors.push_back(calls.back() + lock);
    }
    setup.to->ratio(to_calls, fetches, calls, NO_GOAL);
    setup.to->ratio(floor_to_pass, floors, passes, NO_GOAL);
}

void change_rows(const bench_setup &setup) {
    measure_after_set(setup);
    measure_in_turn(setup);
    measure_first(setup);
    measure_calls(setup, TYPICAL, CALLS, CALLS_ENGINE);
    measure_calls(setup, LARGE, LARGE_CALLS, LARGE_CALLS_ENGINE);
    measure_calls(setup, SMALL, SMALL_CALLS, SMALL_CALLS_ENGINE);
}

}  // namespace keyview::bench
