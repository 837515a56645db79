// Whole programs: what a fetch costs in a process that does nothing else, and the instructions that
// a warm fetch takes in all its libraries together.
#include <fstream>

#include "bench/child.h"
#include "bench/failure.h"
#include "bench/peer_sqlite.h"
#include "bench/registry.h"
#include "bench/rows.h"
#include "bench/scratch.h"

namespace keyview::bench {

constexpr char FRESH[] = "process that fetches once / process that selects once from SQLite";
constexpr char PYTHON[] = "Python fetch typical / C fetch + release";
constexpr char PYTHON_CALLS[] = "Python fetch typical: its calls / the whole";
constexpr char PYTHON_TEXTS[] = "Python fetch typical: texts and lists / the whole";
constexpr char PYTHON_CLASSES[] = "Python fetch typical: dataclasses / the whole";
constexpr char INSTRUCTIONS[] = "instructions per key of a fetch typical, whole process";

static void measure_python(const bench_setup &setup) {
    if (!setup.to->wants({PYTHON, PYTHON_CALLS, PYTHON_TEXTS, PYTHON_CLASSES})) return;
    const std::string programs = program_directory(), build = programs + "/..";
    const std::string database = folded(TYPICAL.database);
    constexpr char FETCHES[] = "200";
    series c, whole, calls, texts, classes;
    for (int round = 0; round < 15; ++round) {
        c.push_back(figures_of({programs + "/fetch_once", setup.url, database, FETCHES})[1]);
        const std::vector<double> python = figures_of(
            {"env", "PYTHONPATH=" + build + "/python", "LD_LIBRARY_PATH=" + build + "/lib",
             "/usr/bin/python3", PYTHON_FETCH, setup.url, database, FETCHES});
        whole.push_back(python[0]);
        calls.push_back(python[2]);
        texts.push_back(python[1] - python[2]);
        classes.push_back(python[0] - python[1]);
    }
    setup.to->ratio(PYTHON, whole, c, NO_GOAL);
    setup.to->ratio(PYTHON_CALLS, calls, whole, NO_GOAL);
    setup.to->ratio(PYTHON_TEXTS, texts, whole, NO_GOAL);
    setup.to->ratio(PYTHON_CLASSES, classes, whole, NO_GOAL);
}

void process_rows(const bench_setup &setup) {
    measure_python(setup);
    if (!setup.to->wants({FRESH})) return;
    const std::string file = setup.directory + "/fresh.sqlite";
    // Both stores are open in this process meanwhile: neither program is the first or last user.
    const session reader(setup.url);
    const sqlite_peer peer(file, peer_rows(record_keys(TYPICAL)));
    const std::string database = folded(TYPICAL.database);
    const std::string programs = program_directory();
    const auto figures =
        interleave({101, 0}, {[&] {
                                  run_program({programs + "/fetch_once", setup.url, database});
                              },
                              [&] {
                                  run_program({programs + "/select_once", file, database});
                              }});
    setup.to->ratio(FRESH, figures[0], figures[1], 1.2);
}

// The line "summary: N" of callgrind's output file.
static double total_of(const std::string &file) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 9, "summary: ") == 0) return std::stod(line.substr(9));
    }
    throw std::runtime_error("callgrind wrote no summary");
}

void instruction_rows(const bench_setup &setup) {
    if (!setup.to->wants({INSTRUCTIONS})) return;
    const std::string out = setup.directory + "/callgrind.out";
    run_program({"valgrind", "-q", "--tool=callgrind", "--callgrind-out-file=" + out,
                 "--collect-atstart=no", "--toggle-collect=prsr_fetch_db_config",
                 program_directory() + "/fetch_once", setup.url, folded(TYPICAL.database), "2"});
    const auto keys = static_cast<double>(record_keys(TYPICAL).size());
    const double total = total_of(out);
    require(total > 0, "callgrind counted nothing");
    setup.to->figure(INSTRUCTIONS, std::to_string(static_cast<long>(total)) + " instructions",
                     std::to_string(static_cast<int>(keys)) + " keys", total / keys, 1300);
}

}  // namespace keyview::bench
