// All operations of the library and the kit for a long time: on an embedded registry and on a cluster
// of three members in turn, in threads that begin and end, one of them interrupted by a signal all
// the time, and in forked children. What the process holds on to and what it leaves behind must be
// the same at the end as after a warm-up.
//
// Usage: soak [--plant KIND|all] [SECONDS [SEED]]; --plant leaks one thing of a kind in each round.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include "../../tests/host/process.h"
#include "../../tests/host/scratch.h"
#include "../cluster.h"
#include "admin/registry.h"
#include "cluster/connection.h"
#include "measures.h"
#include "members.h"
#include "steps.h"

namespace keyview::test {

static constexpr int THREADS = 4;
static constexpr int STEPS_OF_A_THREAD = 4;
static constexpr int FEWEST_ROUNDS = 6;
static constexpr long SIGNAL_PERIOD_NS = 700000;
static constexpr int64_t SETTLING_MS = 15000;  // leases expire, gRPC ends its threads
static constexpr const char *HISTORY_BYTES = "4000";

// ---- Signals ------------------------------------------------------------------------------------

static std::atomic<int64_t> interrupts{0};

// Interrupts the system calls of this thread again and again while the object lives.
class interruptions {
  public:
    interruptions() {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++interrupts; };  // without SA_RESTART
        (void)sigaction(SIGUSR1, &action, nullptr);
        sigevent what = {};
        what.sigev_notify = SIGEV_THREAD_ID;
        what.sigev_signo = SIGUSR1;
        what._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
        require(timer_create(CLOCK_MONOTONIC, &what, &timer_) == 0, "no timer");
        const itimerspec often = {{0, SIGNAL_PERIOD_NS}, {0, SIGNAL_PERIOD_NS}};
        (void)timer_settime(timer_, 0, &often, nullptr);
    }
    interruptions(const interruptions &) = delete;
    interruptions &operator=(const interruptions &) = delete;
    ~interruptions() { (void)timer_delete(timer_); }

  private:
    timer_t timer_{};
};

// ---- Planted leaks ------------------------------------------------------------------------------

// Each leaks one thing, which the measure of that name must show.
struct leak {
    const char *kind;
    const char *shown_by;
    void (*plant)(const places &where, int round);
};

static void leak_block() {
    static std::vector<std::string> kept;
    kept.emplace_back(40000, 'x');
}

static void leak_thread() {
    std::thread([] {
        for (;;)
            pause();
    }).detach();
}

// Its thread and its connection stay as well.
static void leak_watch(const places &where) {
    std::thread([url = where.cluster] {
        auto *calls = new host::connection(host::settings_of(url));
        host::wire::WatchCreateRequest what;
        what.set_key("leak");
        for (;;) {
            try {
                auto end = host::steady::now() + std::chrono::hours(1);
                calls->follow(what, end, [](auto &&) { return true; });
            } catch (const host::host_error &) {
                usleep(10000);  // the next member
            }
        }
    }).detach();
}

static void leak_lease(const places &where, int round) {
    static host::connection calls(host::settings_of(where.cluster));
    calls.grant(1000 + round, std::chrono::hours(1), calls.answer_end());
}

// In a registry beside the one of the work, which needs all of its locks at times.
static void leak_lock(const places &where, int round) {
    static admin::registry one = admin::registry::create(where.cluster + "/beside");
    static std::vector<admin::held_lock> held;
    held.push_back(one.lock(numbered("LKRT.leak", round), true, 5000));
}

static void leak_key(const places &where, int round) {
    const std::string path = numbered("leak.k", round);
    const std::string value(400000, 'x');
    const admin::key_row row{path, value};
    admin::registry::open(where.embedded)
        .apply(
            1, [&](size_t) { return row; }, {}, 0);
}

static void leak_mapping() {
    const int file = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    (void)mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, file, 0);
    (void)close(file);
}

static constexpr leak LEAKS[] = {
    {"descriptor", "descriptors",
     [](const places &, int) { (void)open("/dev/null", O_RDONLY | O_CLOEXEC); }},
    {"thread", "threads", [](const places &, int) { leak_thread(); }},
    {"block", "bytes in use", [](const places &, int) { leak_block(); }},
    {"mapping", "mapped files", [](const places &, int) { leak_mapping(); }},
    {"file", "files",
     [](const places &where, int round) {
         std::ofstream(where.directory + numbered("/leak", round)) << "x";
     }},
    {"key", "pages of the file", leak_key},
    {"history", "changes kept",
     [](const places &, int) { (void)setenv("KEYVIEW_HISTORY", "9000000", 1); }},
    {"lock", "entries of locks", leak_lock},
    {"lease", "leases", leak_lease},
    {"watch", "watches", [](const places &where, int) { leak_watch(where); }},
};

static bool is_planted(const leak &one, const std::string &kinds) {
    return kinds == one.kind || kinds == "all";
}

// ---- Rounds -------------------------------------------------------------------------------------

class soak {
  public:
    explicit soak(unsigned seed) : random_(seed) {
        where_.directory = scratch_.path + "/registry";
        where_.embedded = "lmdb:" + where_.directory;
        where_.cluster = members_.url("/soak");
        for (size_t i = 0; i < members_.count(); ++i)
            where_.members.push_back(members_.address(i));
        for (const std::string *url : {&where_.embedded, &where_.cluster}) {
            choose(*url);
            fill_registry();
        }
        choose(where_.embedded);
        grow_file();
    }

    void round() {
        for (const std::string *url : {&where_.embedded, &where_.cluster}) {
            choose(*url);
            in_threads(THREADS,
                       [&, seed = static_cast<unsigned>(random_())](int n) { thread(n, seed); });
            if (!failed_.empty()) throw std::runtime_error(*url + ": " + failed_);
            in_a_child(*url == where_.embedded);
        }
        ++rounds;
    }

    void plant(const std::string &kind) const {
        for (const leak &one : LEAKS) {
            if (is_planted(one, kind)) one.plant(where_, rounds);
        }
    }

    // The same tree each time, and a history of the same changes.
    std::vector<int64_t> measure_all() const {
        for (const std::string *url : {&where_.cluster, &where_.embedded}) {
            choose(*url);
            fill_registry();
            fill_history();
        }
        return measured(where_);
    }

    int rounds = 0;

  private:
    static void choose(const std::string &url) {
        if (keyview_host_set_registry(url.c_str()) != 0)
            throw std::runtime_error(keyview_host_last_error());
    }

    void thread(int number, unsigned seed) {
        try {
            std::optional<interruptions> disturbed;
            if (number == 0) disturbed.emplace();
            soak_worker(seed + static_cast<unsigned>(number), scratch_.path,
                        "lmdb:" + scratch_.path + numbered("/copy", number))
                .work(STEPS_OF_A_THREAD);
        } catch (const std::exception &error) {
            std::lock_guard guard(mutex_);
            failed_ = error.what();
        }
    }

    // A context of the parent lives on beside the child's own. No child can use a cluster that its
    // parent uses: it is refused.
    static void in_a_child(bool embedded) {
        context parents;
        child_process child([embedded](const meeting &) {
            char status[256] = {};
            prsr_ctx *ctx = nullptr;
            if (prsr_init(status, &ctx) != PRSR_SUCCESS) return embedded ? 1 : 0;
            int32_t enabled = 0;
            bool read = prsr_get_db_enabled(status, ctx, "Db0", &enabled) == PRSR_SUCCESS;
            (void)prsr_terminate(status, ctx);
            return read == embedded ? 0 : 2;
        });
        int ended = child.status();
        require(ended == 0, "a forked child ended with " + std::to_string(ended));
        int32_t enabled = 0;
        context::expect(prsr_get_db_enabled(parents.status, parents.ctx, "Db0", &enabled),
                        "behind a fork");
    }

    scratch_directory scratch_;
    etcd_members members_;
    places where_;
    std::mt19937 random_;
    std::mutex mutex_;
    std::string failed_;
};

// ---- Verdict ------------------------------------------------------------------------------------

static std::vector<size_t> grown(const std::vector<int64_t> &before,
                                 const std::vector<int64_t> &after) {
    std::vector<size_t> which;
    for (size_t i = 0; i < MEASURE_COUNT; ++i) {
        if (after[i] > before[i] + MEASURES[i].allowed) which.push_back(i);
    }
    return which;
}

// The measures when nothing grows any more against what was before, or the patience ends. Without a
// before they are taken when two in a row are the same.
static std::vector<int64_t> settled(const soak &run, std::vector<int64_t> before,
                                    int64_t patience_ms) {
    const bool any = before.empty();
    stopwatch watch;
    std::vector<int64_t> now = run.measure_all();
    while ((any ? now != before : !grown(before, now).empty()) && watch.ms() < patience_ms) {
        if (any) before = now;
        usleep(200000);
        now = run.measure_all();
    }
    return now;
}

static void work_for(soak *run, int64_t ms, const std::string &planted) {
    stopwatch watch;
    for (int n = 0; n < FEWEST_ROUNDS || watch.ms() < ms; ++n) {
        run->round();
        run->plant(planted);
    }
}

// Whether nothing grew, or with planted leaks what shows each of them.
static bool verdict(const std::string &planted, const std::vector<size_t> &which) {
    auto grew = [&](const char *name) {
        return std::any_of(which.begin(), which.end(),
                           [name](size_t i) { return strcmp(MEASURES[i].name, name) == 0; });
    };
    if (planted.empty()) return which.empty();
    return std::all_of(std::begin(LEAKS), std::end(LEAKS), [&](const leak &one) {
        return !is_planted(one, planted) || grew(one.shown_by);
    });
}

static bool run_for(int seconds, unsigned seed, const std::string &planted) {
    (void)setenv("KEYVIEW_HISTORY", HISTORY_BYTES, 1);
    soak run(seed);
    work_for(&run, std::clamp(seconds * 1000 / 3, 2000, 60000), "");
    const int warm = run.rounds;
    const std::vector<int64_t> before = settled(run, {}, SETTLING_MS / 5);
    work_for(&run, seconds * int64_t{1000}, planted);
    const std::vector<int64_t> after = settled(run, before, planted.empty() ? SETTLING_MS : 0);
    (void)printf("seed %u: %d rounds, %d of them to warm up; %" PRId64 " interrupts\n", seed,
                 run.rounds, warm, interrupts.load());
    (void)printf("%-28s %12s %12s %10s\n", "", "warm", "end", "allowed");
    const std::vector<size_t> which = grown(before, after);
    for (size_t i = 0; i < MEASURE_COUNT; ++i) {
        bool grew = std::find(which.begin(), which.end(), i) != which.end();
        (void)printf("%-28s %12" PRId64 " %12" PRId64 " %10" PRId64 "%s\n", MEASURES[i].name,
                     before[i], after[i], MEASURES[i].allowed, grew ? "  GREW" : "");
    }
    return verdict(planted, which);
}

// What a thread freed and keeps for its next calls counts as in use, and how much that is depends on
// which threads met. So does the free end of each heap, which would be kept up to megabytes once large
// blocks were freed.
static void start_without_kept_memory(char **argv) {
    constexpr char TUNABLES[] = "GLIBC_TUNABLES";
    if (getenv(TUNABLES) != nullptr) return;
    (void)setenv(TUNABLES, "glibc.malloc.tcache_count=0:glibc.malloc.trim_threshold=131072", 1);
    (void)execv("/proc/self/exe", argv);
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    keyview::test::start_without_kept_memory(argv);
    std::string planted;
    if (argc > 2 && strcmp(argv[1], "--plant") == 0) {
        planted = argv[2];
        argv += 2;
        argc -= 2;
    }
    int seconds = argc > 1 ? static_cast<int>(strtol(argv[1], nullptr, 10)) : 5;
    auto seed = static_cast<unsigned>(argc > 2 ? strtoul(argv[2], nullptr, 10) : 20240607);
    try {
        bool good = keyview::test::run_for(seconds, seed, planted);
        (void)fflush(stdout);
        _exit(good ? 0 : 1);  // planted threads are still at work
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "soak: seed %u: %s\n", seed, error.what());
        return 2;
    }
}
