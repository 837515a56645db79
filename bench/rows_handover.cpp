// How soon a lock is handed over: once its holder was killed, with nothing left of it or with a
// forked child of it that lives on, and once its holder releases it. Beside that, what the machine
// needs to wake a process without any lock: that sleeps on a pipe, until another process writes to it
// or is killed.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <thread>

#include "bench/child.h"
#include "bench/failure.h"
#include "bench/lock_handle.h"
#include "bench/rows.h"

namespace keyview::bench {

constexpr char ALONE[] = "ms from kill -9 of a holder to hand-over";
constexpr char FORKED[] = "ms from kill -9 of a holder to hand-over, its forked child alive";
constexpr char RELEASED[] = "ms from release to hand-over to a waiter";
constexpr char WAKE[] = "floor: ms from a write to a pipe until its reader runs";
constexpr char WAKE_BY_DEATH[] =
    "floor: ms from kill -9 of the writer of a pipe until its reader runs";

namespace {

struct holder_board {
    std::atomic<bool> holds;
    std::atomic<double> released_us;
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

// Milliseconds from the release to the lock.
static double one_release(const std::string &url, lock_handle *waiter, double released_after_us) {
    shared<holder_board> board;
    child holder([&] {
        lock_handle locks(url);
        locks.take_exclusive();
        board->holds = true;
        sleep_us(released_after_us);
        board->released_us = now_us();
        locks.give_back();
    });
    wait_until([&] { return board->holds.load(); });
    waiter->take_exclusive();
    const double got = now_us();
    waiter->give_back();
    require(board->released_us > 0 && got > board->released_us, "the lock was no lock");
    return (got - board->released_us) / 1000;
}

// ---- A bare wake --------------------------------------------------------------------------------

namespace {

struct pipe_ends {
    pipe_ends() { require_call(pipe2(fds, O_CLOEXEC) == 0, "pipe2"); }
    pipe_ends(const pipe_ends &) = delete;
    pipe_ends &operator=(const pipe_ends &) = delete;
    ~pipe_ends() {
        close(fds[0]);
        if (fds[1] >= 0) close(fds[1]);
    }

    void end_writing() {
        close(fds[1]);
        fds[1] = -1;
    }

    // When it was woken: by a byte, or by the end of the last writer.
    double sleep_on_it() const {
        char byte = 0;
        require_call(read(fds[0], &byte, 1) >= 0, "read");
        return now_us();
    }

    int fds[2];
};

}  // namespace

// Milliseconds from the write to the wake.
static double one_wake(double written_after_us) {
    shared<holder_board> board;
    pipe_ends wire;
    child writer([&] {
        sleep_us(written_after_us);
        board->released_us = now_us();
        require_call(write(wire.fds[1], "", 1) == 1, "write");
    });
    const double woken = wire.sleep_on_it();
    return (woken - board->released_us) / 1000;
}

// Milliseconds from the kill to the wake.
static double one_wake_by_death(double killed_after_us) {
    pipe_ends wire;
    child writer([] {
        for (;;)
            pause();
    });
    wire.end_writing();
    double killed = 0;
    std::thread killer([&] {
        sleep_us(killed_after_us);
        killed = now_us();
        writer.signal(SIGKILL);
    });
    const double woken = wire.sleep_on_it();
    killer.join();
    return (woken - killed) / 1000;
}

// ---- Both in turns ------------------------------------------------------------------------------

namespace {

// What is measured, and the bare wake that no lock can do without; milliseconds, each begun after a
// time that the process sleeps for.
struct handover {
    const char *name;
    double goal_ms;
    std::function<double(lock_handle *waiter, double after_us)> run;
    const char *floor_name;  // null if another row has it
    double (*floor)(double after_us);
};

}  // namespace

static std::string median_and_worst(const series &figures_ms) {
    const double worst = *std::max_element(figures_ms.begin(), figures_ms.end());
    return shown_time(median(figures_ms) * 1000) + ", worst " + shown_time(worst * 1000);
}

static void measure_handover(const bench_setup &setup, const handover &one) {
    const bool has_row = one.floor_name != nullptr;
    if (!setup.to->wants({one.name, has_row ? one.floor_name : one.name})) return;
    constexpr int TIMES = 25;
    std::minstd_rand random(5);
    const auto some_time = [&] { return static_cast<double>(30000 + random() % 20000); };
    lock_handle waiter(setup.url);
    series figures, floors;
    for (int i = 0; i < TIMES; ++i) {
        figures.push_back(one.run(&waiter, some_time()));
        floors.push_back(one.floor(some_time()));
    }
    const double floor = median(floors);
    setup.to->figure(one.name, median_and_worst(figures), "wake " + shown_time(floor * 1000),
                     median(figures), one.goal_ms);
    if (!has_row) return;
    setup.to->figure(one.floor_name, median_and_worst(floors), std::to_string(TIMES) + " times",
                     floor, NO_GOAL);
}

void handover_rows(const bench_setup &setup) {
    const auto killed = [&](bool forks) {
        return [&setup, forks](lock_handle *waiter, double after_us) {
            return one_handover(setup.url, forks, waiter, after_us);
        };
    };
    measure_handover(setup, {ALONE, 0.3, killed(false), WAKE_BY_DEATH, one_wake_by_death});
    measure_handover(setup, {FORKED, 0.3, killed(true), nullptr, one_wake_by_death});
    measure_handover(setup, {RELEASED, 0.1,
                             [&](lock_handle *waiter, double after_us) {
                                 return one_release(setup.url, waiter, after_us);
                             },
                             WAKE, one_wake});
}

}  // namespace keyview::bench
