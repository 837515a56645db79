// Writes: a durable set beside what the disk asks for, a set that changes nothing, an apply next to the
// history, and a reader beside a process that commits without pause.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

#include <atomic>
#include <filesystem>

#include "bench/child.h"
#include "bench/failure.h"
#include "bench/peer_lmdb.h"
#include "bench/registry.h"
#include "bench/rows.h"

namespace keyview::bench {

constexpr char DURABLE[] = "durable set of a flag / pwrite 4 KiB + fdatasync";
constexpr char ENGINE[] = "durable set of a flag / LMDB commit of a row";
constexpr char ENGINE_HISTORY[] = "durable set of a flag / LMDB commit of a row and an entry";
constexpr char HISTORY[] = "durable set of a flag / the same without history";
constexpr char UNCHANGED[] = "set to the stored value / durable set";
constexpr char BEHIND_HISTORY[] = "apply next to a large entry of the history / to a small one";
constexpr char BESIDE_WRITER[] = "fetch typical beside endless commits / quiet";

namespace {

// One block of a file that is written again and again, each time to the disk.
struct synced_block {
    explicit synced_block(const std::string &file)
        : fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        require_call(fd >= 0, "open");
        write();
    }
    synced_block(const synced_block &) = delete;
    synced_block &operator=(const synced_block &) = delete;
    ~synced_block() { close(fd); }

    void write() {
        ++block[0];
        require_call(pwrite(fd, block, sizeof block, 0) == sizeof block, "pwrite");
        require_call(fdatasync(fd) == 0, "fdatasync");
    }

    int fd;
    char block[4096] = {};
};

}  // namespace

static void set_flag(session *writer, const char *database, int32_t enabled) {
    require(prsr_set_db_enabled(writer->status, writer->ctx, database, enabled) == PRSR_SUCCESS,
            "the set failed");
}

// A set that does not show in a later read would be a fast one.
static void verify_set(session *writer, const char *database) {
    for (const int32_t wanted : {0, 1}) {
        int32_t found = -1;
        set_flag(writer, database, wanted);
        require(
            prsr_get_db_enabled(writer->status, writer->ctx, database, &found) == PRSR_SUCCESS &&
                found == wanted,
            "the set does not show");
    }
}

// Fills the history to its usual bound, so that sets also remove entries.
static constexpr int FILLS_HISTORY = 8000;

// The engine on a copy of a registry's file: the same pages, free ones too.
static std::string copy_registry(const std::string &from, const std::string &to) {
    std::filesystem::create_directory(to);
    std::filesystem::copy_file(from + "/data.mdb", to + "/data.mdb");
    return to;
}

// The row of a database's flag there.
static std::string flag_row(const record_size &size) {
    return "DATABASE\x01"
           "DATABASES\x01" +
           folded(size.database) + std::string("\0ENABLED", 8);
}

namespace {

// While it lives, no change is recorded.
struct history_off {
    history_off() { (void)setenv("KEYVIEW_HISTORY", "0", 1); }  // there is memory
    history_off(const history_off &) = delete;
    history_off &operator=(const history_off &) = delete;
    ~history_off() { (void)unsetenv("KEYVIEW_HISTORY"); }
};

}  // namespace

// In a registry of typical size; the one that other rows use also has the large record.
static void measure_sets(const bench_setup &setup) {
    if (!setup.to->wants({DURABLE, ENGINE, ENGINE_HISTORY, HISTORY, UNCHANGED})) return;
    const std::string written = setup.directory + "/written";
    const std::vector<record_size> sizes = {SMALL, TYPICAL, BUSY};
    session writer(make_record_registry(written, sizes));
    verify_set(&writer, BUSY.database);
    verify_set(&writer, SMALL.database);
    synced_block block(setup.directory + "/block");
    int32_t enabled = 0;
    auto set_other = [&](session *one) {
        set_flag(one, BUSY.database, enabled);
        enabled = 1 - enabled;
    };
    for (int n = 0; n < FILLS_HISTORY; ++n)
        set_other(&writer);
    lmdb_peer engine(copy_registry(written, setup.directory + "/written-lmdb"));
    const std::vector<peer_row> row = {engine.row(flag_row(BUSY))};
    const std::vector<peer_row> row_and_entry = {row.front(), engine.last_row()};
    // What a history costs is also the pages that it takes: this registry never had one.
    const auto make_unrecorded = [&] {
        const history_off off;
        return make_record_registry(setup.directory + "/unrecorded", sizes);
    };
    session unrecorded(make_unrecorded());
    const auto set_unrecorded = [&] {
        const history_off off;
        set_other(&unrecorded);
    };
    const auto figures = interleave(
        {401, 4}, {[&] { set_other(&writer); }, [&] { block.write(); },
                   [&] { set_flag(&writer, SMALL.database, 1); }, [&] { engine.commit(row); },
                   set_unrecorded, [&] { engine.commit(row_and_entry); }});
    setup.to->ratio(DURABLE, figures[0], figures[1], NO_GOAL);
    setup.to->ratio(ENGINE, figures[0], figures[3], 1.1);
    setup.to->ratio(ENGINE_HISTORY, figures[0], figures[5], NO_GOAL);
    setup.to->ratio(HISTORY, figures[0], figures[4], 1.1);
    setup.to->ratio(UNCHANGED, figures[2], figures[0], 0.05);
}

// ---- Beside the history -------------------------------------------------------------------------

// The history lies behind all keys, the entry of the first change next to the last key. Each apply has
// a database that comes last.
static void measure_behind_history(const bench_setup &setup) {
    if (!setup.to->wants({BEHIND_HISTORY})) return;
    const std::string beside_large = setup.directory + "/behind-large";
    const std::string beside_small = setup.directory + "/behind-small";
    (void)make_record_registry(beside_large, {LARGE});
    (void)make_record_registry(beside_small, {SMALL});
    int last = 100;
    const auto apply_last = [&](const std::string &directory) {
        const std::string name = "Typical" + std::to_string(last++);
        (void)make_record_registry(directory,
                                   {{name.c_str(), TYPICAL.instances, TYPICAL.services}});
    };
    const auto figures =
        interleave({11, 1}, {[&] { apply_last(beside_large); }, [&] { apply_last(beside_small); }});
    setup.to->ratio(BEHIND_HISTORY, figures[0], figures[1], 1.5);
}

// ---- Beside a writer ----------------------------------------------------------------------------

// Fetches for a while, long enough for several commits beside it.
static double time_fetches(session *reader) {
    constexpr double AT_LEAST_US = 15000;
    const double start = now_us();
    double passed = 0;
    int fetches = 0;
    for (; passed < AT_LEAST_US; passed = now_us() - start, ++fetches)
        reader->fetch(TYPICAL.database);
    return passed / fetches;
}

static void commit_without_end(const std::string &url, std::atomic<int> *commits) {
    session writer(url);
    for (int32_t enabled = 0;; enabled = 1 - enabled) {
        set_flag(&writer, BUSY.database, enabled);
        ++*commits;
    }
}

static void measure_beside_writer(const bench_setup &setup) {
    if (!setup.to->wants({BESIDE_WRITER})) return;
    constexpr int ROUNDS = 61;
    shared<std::atomic<int>> commits;
    child writer([&] { commit_without_end(setup.url, commits.operator->()); });
    session reader(setup.url);
    (void)time_fetches(&reader);
    wait_until([&] { return commits->load() > 0; });

    series beside;
    series quiet;
    int written = 0;
    for (int round = 0; round < ROUNDS; ++round) {
        writer.signal(SIGCONT);
        sleep_us(3000);
        const int before = commits->load();
        beside.push_back(time_fetches(&reader));
        written += commits->load() - before;
        writer.signal(SIGSTOP);
        sleep_us(1000);
        quiet.push_back(time_fetches(&reader));
    }
    require(written > ROUNDS, "the writer did not commit");
    setup.to->ratio(BESIDE_WRITER, beside, quiet, 1.5);
}

void write_rows(const bench_setup &setup) {
    measure_sets(setup);
    measure_behind_history(setup);
    measure_beside_writer(setup);
}

}  // namespace keyview::bench
