// cluster_bench: the same operations over a registry in a cluster of three members on this machine,
// beside transactions written by hand over the same connections. Arguments and exit codes as those
// of keyview_bench.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <future>
#include <memory>

#include "bench/child.h"
#include "bench/failure.h"
#include "bench/registry.h"
#include "bench/report.h"
#include "bench/scratch.h"
#include "bench/tool_scale.h"
#include "cluster/tree_part.h"
#include "host/if/keyview_registry.h"
#include "members.h"

namespace keyview::bench {

constexpr char FETCH[] = "fetch + release typical / two transactions by hand";
constexpr char BY_KEY[] = "fetch + release typical / a read for each key and list";
constexpr char FETCH_TRIPS[] = "round trips of a fetch";
constexpr char LIST_TRIPS[] = "round trips of a list of 10,000 databases";
constexpr char SET_TRIPS[] = "round trips of a flag set with its lock";
constexpr char LIST[] = "list of 10,000 databases / two transactions by hand";

constexpr char CROWD[] = "fetch + release typical beside 39 other readers / alone";
constexpr char APPLY_BY_HAND[] =
    "apply of 10,000 databases in a cluster / puts by hand, 100 at once";
constexpr char GROWTH[] = "apply in a cluster, per database of 10,000 / of 1,000";

constexpr int LISTED = 10000;

namespace {

// The cluster without the kit: one connection, and requests that were made before.
class by_hand {
  public:
    by_hand(const std::string &url, const std::string &top, reach reach,
            const std::vector<tree_key> &keys)
        : calls_(host::settings_of(url)), keys_(calls_.settings().prefix) {
        calls_.grant(LEASE, std::chrono::seconds(600), calls_.answer_end());
        std::string entry = keys_.lock_entry("by hand", host::lock_mode::shared, "1");
        host::key_range writers = keys_.lock_writers("by hand");
        host::require_created(&take_, writers, 0);
        host::add_put(take_.mutable_success(), entry, "", LEASE);
        const uint32_t depth = host::elements_of(top);
        const uint32_t last = reach == reach::children ? depth + 1 : deepest(keys);
        host::add_range(take_.mutable_success(), {keys_.key(top), ""});
        for (uint32_t n = depth + 1; n <= last; ++n)
            host::add_range(take_.mutable_success(), keys_.below(top, n));
        host::add_delete(give_back_.mutable_success(), {entry, ""});
        for (const tree_key &key : keys) {
            singles_.emplace_back();
            host::add_range(singles_.back().mutable_success(), {keys_.key(key.path), ""});
        }
        for (const tree_key &key : keys) {
            if (std::none_of(keys.begin(), keys.end(), [&](const tree_key &other) {
                    return parent_path(other.path) == key.path;
                })) {
                continue;
            }
            singles_.emplace_back();
            host::add_range(singles_.back().mutable_success(),
                            keys_.below(key.path, host::elements_of(key.path) + 1));
        }
    }

    void in_two() {
        const auto found = calls_.txn(take_, calls_.answer_end());
        require(found.succeeded(), "the lock by hand is not free");
        (void)calls_.txn(give_back_, calls_.answer_end());
    }

    void by_key() {
        for (const auto &one : singles_)
            (void)calls_.txn(one, calls_.answer_end());
    }

    size_t reads() const { return singles_.size(); }

  private:
    static constexpr int64_t LEASE = 4711;

    static uint32_t deepest(const std::vector<tree_key> &keys) {
        uint32_t most = 0;
        for (const tree_key &key : keys)
            most = std::max(most, host::elements_of(key.path));
        return most;
    }

    host::connection calls_;
    host::layout keys_;
    host::wire::TxnRequest take_;
    host::wire::TxnRequest give_back_;
    std::vector<host::wire::TxnRequest> singles_;
};

// The same registry with another member first: that is the one that is asked.
std::string url_with_first(const test::etcd_members &members, size_t first) {
    std::string all = "etcd://";
    for (size_t n = 0; n < members.count(); ++n)
        all += (n > 0 ? "," : "") + members.address((first + n) % members.count());
    return all + "/bench";
}

void fetch_rows(report *to, const test::etcd_members &members, const std::vector<tree_key> &keys) {
    if (!to->wants({FETCH, BY_KEY})) return;
    for (size_t first = 0; first < members.count(); ++first) {
        const std::string url = url_with_first(members, first);
        const std::string where =
            first == members.leader() ? ", asking the leader" : ", asking a follower";
        session reader(url);
        by_hand peer(url, keys.front().path, reach::all_below, keys);
        const auto figures =
            interleave({101, 5}, {[&] { reader.fetch(TYPICAL.database); }, [&] { peer.in_two(); }});
        to->ratio((FETCH + where).c_str(), figures[0], figures[1], 1.1);
        const auto slow =
            interleave({5, 1}, {[&] { reader.fetch(TYPICAL.database); }, [&] { peer.by_key(); }});
        to->ratio((BY_KEY + where).c_str(), slow[0], slow[1], 0.02);
    }
}

using registry_handle = std::unique_ptr<keyview_registry, decltype(&keyview_registry_close)>;

registry_handle open_registry(const std::string &url) {
    keyview_registry *registry = nullptr;
    require(keyview_registry_open(url.c_str(), 0, &registry) == 0, keyview_host_last_error());
    return {registry, keyview_registry_close};
}

// The most round trips of twenty calls.
void trips_row(report *to, const char *name, const keyview_registry *keys, double goal,
               const std::function<void()> &call) {
    if (!to->wants({name})) return;
    uint64_t most = 0;
    call();  // the first lock of a session brings its lease
    for (int n = 0; n < 20; ++n) {
        const uint64_t before = keyview_registry_round_trips(keys);
        call();
        most = std::max(most, keyview_registry_round_trips(keys) - before);
    }
    to->figure(name, std::to_string(most) + " round trips", "20 calls, the most",
               static_cast<double>(most), goal);
}

void list_rows(report *to, const test::etcd_members &members) {
    if (!to->wants({LIST_TRIPS, LIST})) return;
    const std::string url = members.url("/list");
    const std::vector<tree_key> keys = list_keys(LISTED);
    fill_registry(url, keys);
    session reader(url);
    const registry_handle same = open_registry(url);
    const auto list = [&] {
        char **names = nullptr;
        uint32_t count = 0;
        require(prsr_list_db(reader.status, reader.ctx, &names, &count) == PRSR_SUCCESS &&
                    count == LISTED,
                "the listing failed");
        (void)prsr_release_db_list(reader.status, reader.ctx, names, count);
    };
    trips_row(to, LIST_TRIPS, same.get(), 3, list);
    if (!to->wants({LIST})) return;
    by_hand peer(url,
                 std::string(parent_path(keys.back().path.substr(0, keys.back().path.rfind('.')))),
                 reach::children, {});
    const auto figures = interleave({15, 1}, {list, [&] { peer.in_two(); }});
    to->ratio(LIST, figures[0], figures[1], NO_GOAL);
}

void set_rows(report *to, const std::string &url) {
    session writer(url);
    const registry_handle same = open_registry(url);
    trips_row(to, FETCH_TRIPS, same.get(), 2, [&] { writer.fetch(TYPICAL.database); });
    trips_row(to, SET_TRIPS, same.get(), 3, [&] {
        static int32_t enabled = 0;
        enabled = 1 - enabled;
        require(prsr_set_db_enabled(writer.status, writer.ctx, TYPICAL.database, enabled) ==
                    PRSR_SUCCESS,
                "the set failed");
    });
}

struct crowd {
    double alone_us;
    double among_many_us;
    double rate;  // fetches a second, of all together
};

// Each process fetches again and again. So the rate of all of them is their number, divided by the time
// that one fetch takes meanwhile.
crowd measure_crowd(const std::string &url) {
    constexpr int READERS = 40;
    const std::vector<std::string> words = {program_directory() + "/fetch_once", url,
                                            folded(TYPICAL.database), "200"};
    const double alone = figures_of(words).at(1);
    std::vector<std::future<std::vector<double>>> readers;
    for (int i = 0; i < READERS; ++i)
        readers.push_back(std::async(std::launch::async, [&] { return figures_of(words); }));
    series medians;
    for (auto &one : readers)
        medians.push_back(one.get().at(1));
    return {alone, median(medians), READERS * 1e6 / median(medians)};
}

void crowd_row(report *to, const std::string &url) {
    if (!to->wants({CROWD})) return;
    const crowd found = measure_crowd(url);
    char rate[64];
    (void)std::snprintf(rate, sizeof rate, ", %.0f fetches a second in all", found.rate);
    to->figure(CROWD, shown_time(found.among_many_us) + rate, shown_time(found.alone_us),
               found.among_many_us / found.alone_us, NO_GOAL);
}

// Each registry has a prefix of its own.
url_maker cluster_urls(const test::etcd_members &members) {
    return [&members, made = 0](int) mutable {
        return members.url("/scale" + std::to_string(++made));
    };
}

// The same keys without a lock, a plan, a journal or a condition.
double put_by_hand_us(const std::string &url, int databases) {
    host::connection calls(host::settings_of(url));
    const host::layout keys(calls.settings().prefix);
    const double start = now_us();
    host::wire::TxnRequest request;
    const auto send = [&] {
        (void)calls.txn(request, calls.answer_end());
        request.Clear();
    };
    for (const tree_key &key : list_keys(databases)) {
        host::add_put(request.mutable_success(), keys.key(key.path), key.value);
        if (request.success_size() == 100) send();
    }
    if (request.success_size() > 0) send();
    return now_us() - start;
}

// The members work for a command, too, so the time that passes counts. What an apply costs whatever
// the size is what it costs with one database.
void growth_row(report *to, const test::etcd_members &members) {
    if (!to->wants({GROWTH, APPLY_BY_HAND})) return;
    constexpr int ROUNDS = 3;
    constexpr int RUNS = 5;
    constexpr double ENOUGH_US = 8e6;
    const scratch_directory scratch;
    const url_maker urls = cluster_urls(members);
    tool_scale one(scratch.path(), urls, 1);
    tool_scale small(scratch.path(), urls, 1000);
    tool_scale large(scratch.path(), urls, 10000);
    series per_large, per_small, large_us, by_hand_us;
    double passed_us = 0;
    for (int round = 0; round < ROUNDS && passed_us < ENOUGH_US; ++round) {
        series of_one, of_small;
        for (int i = 0; i < RUNS; ++i) {
            of_one.push_back(one.run(APPLY).wall_us);
            of_small.push_back(small.run(APPLY).wall_us);
        }
        const double fixed = median(of_one);
        per_small.push_back((median(of_small) - fixed) / (small.databases() - 1));
        const double of_large = large.run(APPLY).wall_us;
        per_large.push_back((of_large - fixed) / (large.databases() - 1));
        large_us.push_back(of_large);
        by_hand_us.push_back(put_by_hand_us(urls(-1), large.databases()));
        passed_us += of_large;
    }
    to->ratio(APPLY_BY_HAND, large_us, by_hand_us, NO_GOAL);
    to->ratio(GROWTH, per_large, per_small, 1.5);
}

int run_points() {
    const test::etcd_members members;
    const scratch_directory scratch;
    fill_registry(members.url("/bench"), record_keys(TYPICAL));
    (void)std::printf("# fetches %.0f\n", measure_crowd(members.url("/bench")).rate);
    print_points("cluster", scratch.path(), cluster_urls(members), {1, 10, 100, 1000, 10000});
    return 0;
}

int run(const std::vector<std::string> &selection) {
    report table(selection);
    const test::etcd_members members;
    const std::vector<tree_key> keys = record_keys(TYPICAL);
    fill_registry(members.url("/bench"), keys);
    fetch_rows(&table, members, keys);
    set_rows(&table, members.url("/bench"));
    list_rows(&table, members);
    crowd_row(&table, members.url("/bench"));
    growth_row(&table, members);
    (void)std::printf("%s\n\n", machine_line(members.directory()).c_str());
    table.print();
    return table.missed() == 0 ? 0 : 1;
}

}  // namespace

}  // namespace keyview::bench

int main(int argc, char **argv) {
    try {
        if (argc == 2 && std::string(argv[1]) == "--points") return keyview::bench::run_points();
        return keyview::bench::run({argv + 1, argv + argc});
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "cluster_bench: %s\n", error.what());
        return 2;
    }
}
