// How soon a lock is handed over once its holder was killed: with nothing left of the holder, and
// with a forked child of it that lives on.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "bench/child.h"
#include "bench/failure.h"
#include "bench/lock_handle.h"
#include "bench/rows.h"

namespace keyview::bench {

constexpr char ALONE[] = "ms from kill -9 of a holder to hand-over";
constexpr char FORKED[] = "ms from kill -9 of a holder to hand-over, its forked child alive";

namespace {

struct holder_board {
    std::atomic<bool> holds;
    std::atomic<pid_t> forked;
};

}  // namespace

// Takes the lock and waits to be killed; its child ends by itself if nobody does that.
static void hold(const std::string &url, bool forks, holder_board *board) {
    lock_handle locks(url);
    locks.take_exclusive();
    const pid_t forked = forks ? fork() : 0;
    if (forks && forked > 0) board->forked = forked;
    if (!forks || forked > 0) board->holds = true;
    alarm(60);
    for (;;)
        pause();
}

// Milliseconds from the kill to the lock.
static double one_handover(const std::string &url, bool forks, lock_handle *waiter,
                           double killed_after_us) {
    shared<holder_board> board;
    child holder([&] { hold(url, forks, board.operator->()); });
    wait_until([&] { return board->holds.load(); });
    double killed = 0;
    std::thread killer([&] {
        sleep_us(killed_after_us);
        killed = now_us();
        holder.signal(SIGKILL);
    });
    waiter->take_exclusive();
    const double got = now_us();
    killer.join();
    waiter->give_back();
    const pid_t forked = board->forked.load();
    const bool lives = forked > 0 && kill(forked, 0) == 0;
    if (forked > 0) (void)kill(forked, SIGKILL);
    require(lives == forks, "the holder's child was to live");
    require(got > killed && killed > 0, "the lock was no lock");
    return (got - killed) / 1000;
}

static void measure_handover(const bench_setup &setup, const char *name, bool forks) {
    if (!setup.to->wants({name})) return;
    constexpr int KILLS = 25;
    std::minstd_rand random(5);
    lock_handle waiter(setup.url);
    series figures;
    for (int i = 0; i < KILLS; ++i) {
        const auto after = static_cast<double>(30000 + random() % 20000);
        figures.push_back(one_handover(setup.url, forks, &waiter, after));
    }
    const double worst = *std::max_element(figures.begin(), figures.end());
    setup.to->figure(name,
                     shown_time(median(figures) * 1000) + ", worst " + shown_time(worst * 1000),
                     std::to_string(KILLS) + " kills", median(figures), 5);
}

void handover_rows(const bench_setup &setup) {
    measure_handover(setup, ALONE, false);
    measure_handover(setup, FORKED, true);
}

}  // namespace keyview::bench
