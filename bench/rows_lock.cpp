// Locks: what a shared one costs beside the bare system calls, and how long a writer waits while
// readers come and go without a free moment.
#include <atomic>
#include <memory>
#include <random>

#include "bench/byte_lock.h"
#include "bench/child.h"
#include "bench/failure.h"
#include "bench/lock_handle.h"
#include "bench/rows.h"

namespace keyview::bench {

constexpr char SHARED[] = "shared lock + unlock / bare OFD pair";
constexpr char HINT[] = "shared lock + unlock / bare OFD pair and a query";
constexpr char WRITER_WAIT[] = "writer's mean wait under 3 readers / their mean hold";

// ---- A lock and its release ---------------------------------------------------------------------

static void measure_shared(const bench_setup &setup) {
    if (!setup.to->wants({SHARED, HINT})) return;
    lock_handle locks(setup.url);
    const byte_lock bare(setup.registry_directory + "/byte");
    const auto figures = interleave({201, 1}, {[&] {
                                                   locks.take_shared();
                                                   locks.give_back();
                                               },
                                               [&] { bare.take_and_release(); },
                                               [&] {
                                                   bare.query();  // without the hint, of the gate
                                                   bare.take_and_release();
                                               }});
    setup.to->ratio(SHARED, figures[0], figures[1], 1.2);
    setup.to->ratio(HINT, figures[0], figures[2], NO_GOAL);
}

// ---- A writer among readers ---------------------------------------------------------------------

namespace {

struct reader_board {
    std::atomic<int> inside;  // readers that hold the lock
    std::atomic<int> holds;
    std::atomic<uint64_t> held_us;
};

}  // namespace

// Holds the lock for 2.5 to 7.5 ms, time after time, so that the readers do not fall into step.
static void read_without_end(const std::string &url, unsigned seed, reader_board *board) {
    std::minstd_rand random(seed);
    lock_handle locks(url);
    for (;;) {
        locks.take_shared();
        const double start = now_us();
        ++board->inside;
        sleep_us(static_cast<double>(2500 + random() % 5000));
        --board->inside;
        board->held_us += static_cast<uint64_t>(now_us() - start);
        ++board->holds;
        locks.give_back();
    }
}

static void measure_writer_wait(const bench_setup &setup) {
    if (!setup.to->wants({WRITER_WAIT})) return;
    constexpr int ASKS = 50;
    shared<reader_board> board;
    std::vector<std::unique_ptr<child>> readers;
    for (unsigned seed = 1; seed <= 3; ++seed) {
        readers.push_back(std::make_unique<child>(
            [&, seed] { read_without_end(setup.url, seed, board.operator->()); }));
    }
    wait_until([&] { return board->holds.load() > 10; });

    std::minstd_rand random(4);
    lock_handle writer(setup.url);
    double waited = 0;
    int found_free = 0;
    for (int i = 0; i < ASKS; ++i) {
        sleep_us(static_cast<double>(15000 + random() % 10000));
        found_free += board->inside.load() == 0 ? 1 : 0;
        const double start = now_us();
        writer.take_exclusive();
        waited += now_us() - start;
        writer.give_back();
    }
    readers.clear();
    const double mean_hold = static_cast<double>(board->held_us.load()) / board->holds.load();
    setup.to->figure(WRITER_WAIT,
                     shown_time(waited / ASKS) + ", " + std::to_string(found_free) + " of " +
                         std::to_string(ASKS) + " times free",
                     shown_time(mean_hold), waited / ASKS / mean_hold, 2);
}

void lock_rows(const bench_setup &setup) {
    measure_shared(setup);
    measure_writer_wait(setup);
}

}  // namespace keyview::bench
