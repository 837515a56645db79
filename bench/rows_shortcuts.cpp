// The shortcuts of the host kit, each beside the same work without it.
#include <algorithm>
#include <cstdlib>
#include <random>

#include "bench/failure.h"
#include "bench/lock_handle.h"
#include "bench/rows.h"
#include "bench/workload.h"
#include "platform/kvtc.h"

namespace keyview::bench {

constexpr char REPLAYED[] = "keys of typical in the order of the last reader / in no order";
constexpr char PREDICTED[] = "keys of typical in tree order / in no order";
constexpr char BLOCKS[] = "500 blocks of a record / calloc + free";

// ---- Look-ups -----------------------------------------------------------------------------------

namespace {

// A reader of all keys of a record under the record's lock.
struct record_reader {
    record_reader(const std::string &url, const std::vector<tree_key> &keys, bool same_start)
        : locks(url), alternates(!same_start) {
        require(kvtc_init_ext(&reg, 3, nullptr, nullptr, 0) == 0, keyview_host_last_error());
        for (const tree_key &key : keys)
            paths.push_back(key.path);
    }
    record_reader(const record_reader &) = delete;
    record_reader &operator=(const record_reader &) = delete;
    ~record_reader() { (void)kvtc_terminate(reg); }

    void open(const std::string &path) const {
        void *key = nullptr;
        require(kvtc_open_key(reg, &key, path.c_str()) == 0, keyview_host_last_error());
        (void)kvtc_close_key(reg, key);
    }
    void read() {
        locks.take_shared();
        first = alternates ? 1 - first : first;  // a new start leaves nothing of the last order
        open(paths[first]);
        for (const std::string &path : paths)
            open(path);
        locks.give_back();
    }

    lock_handle locks;
    bool alternates;
    size_t first = 0;
    void *reg = nullptr;
    std::vector<std::string> paths;
};

}  // namespace

static void measure_lookups(const bench_setup &setup) {
    if (!setup.to->wants({REPLAYED, PREDICTED})) return;
    std::vector<tree_key> keys = record_keys(TYPICAL);
    record_reader predicted(setup.url, keys, false);
    std::shuffle(keys.begin(), keys.end(), std::minstd_rand(1));
    record_reader replayed(setup.url, keys, true);
    record_reader searched(setup.url, keys, false);
    const auto figures = interleave(
        {101, 2}, {[&] { replayed.read(); }, [&] { predicted.read(); }, [&] { searched.read(); }});
    setup.to->ratio(REPLAYED, figures[0], figures[2], NO_GOAL);
    setup.to->ratio(PREDICTED, figures[1], figures[2], NO_GOAL);
}

// ---- Blocks -------------------------------------------------------------------------------------

template <typename Take, typename Free>
static void use_blocks(Take &&take, Free &&release) {
    static constexpr size_t SIZES[] = {2048, 8, 24, 72, 1024};
    void *blocks[500];
    for (size_t i = 0; i < 500; ++i)
        blocks[i] = take(SIZES[i % 5]);
    for (void *block : blocks)
        release(block);
}

static void measure_blocks(const bench_setup &setup) {
    if (!setup.to->wants({BLOCKS})) return;
    void *mem = pgcinit(0);
    const auto figures = interleave(
        {101, 1}, {[&] {
                       use_blocks([&](size_t size) { return tmem_allocm(mem, size); },
                                  [&](void *block) { tmem_freem(mem, block); });
                   },
                   [] { use_blocks([](size_t size) { return calloc(1, size); }, free); }});
    setup.to->ratio(BLOCKS, figures[0], figures[1], NO_GOAL);
}

void shortcut_rows(const bench_setup &setup) {
    measure_lookups(setup);
    measure_blocks(setup);
}

}  // namespace keyview::bench
