// Processes that are rivals for a few locks of a cluster, while processes and members are killed
// and stopped at random. Afterwards the history of the cluster is looked at: no lock may have been
// granted, and no value written, while the entry of its owner was not the first of those that
// conflict; what was reported is there, once; nobody waited without end.
//
// One of the waiters is always stopped for longer than its lease, so that it wakes up without a
// entry when the lock is free. Who grants without looking at the own entry is found by that.
//
// Usage: rivals [--unchecked | --users] [ACQUISITIONS [SEED]]; with users their tokens soon expire.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <random>

#include "cluster.h"
#include "cluster/cluster.h"
#include "cluster/etcd_locks.h"
#include "cluster/faults.h"
#include "host/registry/reported_wait.h"
#include "lock_history.h"
#include "members.h"
#include "own_process.h"
#include "registry.h"

namespace keyview::test {

static constexpr int CLIENTS = 8;
static constexpr unsigned NAMES = 6;
static constexpr unsigned KEYS = 3;  // below each name
static constexpr unsigned MOST_SETS = 3;
static constexpr unsigned WRITERS_OF_TEN = 4;
static constexpr uint32_t LONGEST_WAIT_MS = 30000;
static constexpr int64_t LONGEST_SILENCE_MS = 45000;
static constexpr const char *LEASE_TTL = "2";
static constexpr const char *PREFIX = "/rivals";
static constexpr const char *PLANTED = "planted";  // the name whose waiter is stopped

static std::string lock_name(const std::string &name) {
    return "LKRT." + name;
}

static std::string path_below(const std::string &name, unsigned key) {
    return name + "." + numbered("k", static_cast<int>(key));
}

// ---- A client -----------------------------------------------------------------------------------

static volatile sig_atomic_t asked_to_end = 0;

// Reports "W" for a wait, "G mode, created, granted, entry" for a grant, "S value" for a set, "L" for
// a set that was refused since the lock was lost, and "E text" for what must not happen.
class rival {
  public:
    rival(const std::string &url, const std::string &report, const std::string &id)
        : registry_(KEYVIEW_BACKEND_KIND.open(url, open_mode::existing)),
          report_(report),
          id_(id),
          random_(static_cast<unsigned>(std::hash<std::string>()(id))) {
        observe_waits(tell_wait, &report_);
    }

    void step(const std::string &only_name) {
        std::string name =
            only_name.empty() ? numbered("n", static_cast<int>(any_of(NAMES))) : only_name;
        bool exclusive = !only_name.empty() || any_of(10) < WRITERS_OF_TEN;
        try {
            hold(name, exclusive ? lock_mode::exclusive : lock_mode::shared);
        } catch (const host_error &error) {
            report_.line(std::string("E\t") + error.what());
        }
    }

  private:
    static void tell_wait(void *report, keyview_bytes, keyview_bytes holder) {
        if (holder.size > 0) static_cast<report_file *>(report)->line("W");
    }

    unsigned any_of(unsigned count) { return static_cast<unsigned>(random_() % count); }

    void hold(const std::string &name, lock_mode mode) {
        auto held = registry_.locks->acquire(lock_name(name), mode, LONGEST_WAIT_MS);
        const queue_entry &entry = *dynamic_cast<const etcd_lock &>(*held).entry();
        report_.line(std::string("G\t") + (mode == lock_mode::shared ? "r" : "w") + '\t' +
                     std::to_string(entry.created()) + '\t' + std::to_string(entry.granted) + '\t' +
                     entry.key());
        for (unsigned left = any_of(MOST_SETS + 1); left > 0; --left) {
            if (!set(path_below(name, any_of(KEYS)), {entry.key(), entry.created()}, held.get()))
                return;
        }
    }

    bool set(const std::string &path, const lock_claim &mine, const held_lock *fence) {
        std::string value = value_of_claim(id_ + "." + std::to_string(++sets_), mine);
        try {
            require(registry_.keys->set(path, value, fence), "no key " + path);
        } catch (const host_error &error) {
            if (error.kind != failure::lock) throw;
            report_.line("L");
            return false;
        }
        report_.line("S\t" + value);
        return true;
    }

    backend registry_;
    report_file report_;
    std::string id_;
    std::mt19937 random_;
    int sets_ = 0;
};

// rivals client URL REPORT ID NAME UNCHECKED, where NAME may be "" for any.
static int client_main(char **words) {
    die_with_parent();
    (void)setenv("KEYVIEW_LEASE_TTL", LEASE_TTL, 1);
    take_requests([](int) { asked_to_end = 1; });
    faults.grant_unchecked = std::string(words[4]) == "unchecked";
    rival one(words[0], words[1], words[2]);
    while (asked_to_end == 0)
        one.step(words[3]);
    return 0;
}

// ---- Those who watch over them ------------------------------------------------------------------

struct totals {
    int64_t acquisitions = 0;
    int64_t exclusive = 0;
    int64_t sets = 0;
    int64_t lost = 0;
    int64_t processes = 0;
    int64_t stops = 0;
    int64_t members = 0;
};

// One of the processes at a time, and the next one once it is dead.
class seat {
  public:
    seat(std::function<std::unique_ptr<own_process>()> make, totals *counts, lock_judge *judge)
        : make_(std::move(make)), counts_(counts), judge_(judge) {
        fill();
    }

    void fill() {
        process_ = make_();
        ++counts_->processes;
        silent_since_ = stopwatch();
    }

    void kill_it() {
        process_->kill_it();
        read();  // what it still wrote
        fill();
    }

    void stop() {
        process_->send(SIGSTOP);
        ++counts_->stops;
    }

    void go_on() {
        process_->send(SIGCONT);
        silent_since_ = stopwatch();
    }

    // Whether it has waited: its entry is there, and it knows of it.
    bool has_waited() {
        read();
        return has_waited_;
    }

    void ask_to_end() { process_->send(SIGTERM); }

    void end(std::vector<std::string> *wrong) {
        ask_to_end();
        if (!process_->ends_within(LONGEST_SILENCE_MS)) process_->kill_it();
        int status = process_->status();
        if (status != 0) wrong->push_back("a process failed: status " + std::to_string(status));
        read();
        wrong->insert(wrong->end(), errors_.begin(), errors_.end());
    }

    void read() {
        for (const std::string &line : process_->news()) {
            silent_since_ = stopwatch();
            take(line);
        }
        if (silent_since_.ms() > LONGEST_SILENCE_MS) {
            errors_.emplace_back("a process came to nothing");
            (void)fprintf(stderr, "rivals: %s\n", errors_.back().c_str());
            silent_since_ = stopwatch();
        }
    }

  private:
    void take(const std::string &line) {
        std::vector<std::string> words = split(line);
        if (words[0] == "E") errors_.push_back(words[1]);
        if (words[0] == "L") ++counts_->lost;
        has_waited_ |= words[0] == "W";
        if (words[0] == "S") {
            ++counts_->sets;
            judge_->told_set(line.substr(2));
        }
        if (words[0] != "G") return;
        ++counts_->acquisitions;
        counts_->exclusive += words[1] == "w";
        judge_->told_grant(std::stoll(words[3]), {words[4], std::stoll(words[2])});
    }

    std::function<std::unique_ptr<own_process>()> make_;
    totals *counts_;
    lock_judge *judge_;
    std::unique_ptr<own_process> process_;
    stopwatch silent_since_;
    std::vector<std::string> errors_;
    bool has_waited_ = false;
};

class arena {
  public:
    arena(bool unchecked, bool users, unsigned seed)
        : unchecked_(unchecked),
          random_(seed),
          members_(3, users ? short_lived_tokens(keys_.path) : std::vector<std::string>()) {
        if (users) login_.emplace(members_);
        events_.emplace(settings_of(url_));
        registry_ = open_registry();
    }

    // A waiter loses its entry while it is stopped, and then the lock becomes free.
    void plant() {
        std::string queue = layout(PREFIX).lock_queue(lock_name(PLANTED)).begin;
        auto held = registry_.locks->acquire(lock_name(PLANTED), lock_mode::exclusive, 1000);
        seat waiter(maker(PLANTED), &counts_, &judge_);
        stopwatch watch;
        for (; !waiter.has_waited(); usleep(1000))
            require(watch.ms() < LONGEST_SILENCE_MS, "a waiter does not wait");
        await_entries(queue, 2);
        waiter.stop();
        await_entries(queue, 1);
        held.reset();
        await_entries(queue, 0);
        waiter.go_on();
        watch = stopwatch();
        for (int64_t before = counts_.acquisitions; counts_.acquisitions == before; usleep(1000)) {
            require(watch.ms() < LONGEST_SILENCE_MS, "a waiter that was stopped is not granted");
            waiter.read();
        }
        waiter.end(&wrong_);
    }

    void run(int64_t acquisitions) {
        for (int n = 0; n < CLIENTS; ++n)
            seats_.push_back(std::make_unique<seat>(maker(""), &counts_, &judge_));
        is_stopped_.resize(seats_.size());
        stopwatch watch;
        for (acquisitions += counts_.acquisitions; counts_.acquisitions < acquisitions;) {
            for (auto &one : seats_)
                one->read();
            if (steady::now() >= next_harm_) plan_harm();
            do_due();
            usleep(2000);
        }
        seconds_ = static_cast<double>(watch.us()) / 1e6;
        for (; !due_.empty(); usleep(2000))
            do_due();
        for (auto &one : seats_)
            one->ask_to_end();
        for (auto &one : seats_)
            one->end(&wrong_);
        await_entries(PREFIX + std::string("/lk/"), 0);  // of those killed last, too
    }

    // Whether all was right.
    bool verdict() {
        registry_ = {};  // leaves its queues
        std::vector<std::string> found = judge_.judge(events_->all());
        wrong_.insert(wrong_.end(), found.begin(), found.end());
        for (const std::string &one : wrong_)
            (void)fprintf(stderr, "rivals: %s\n", one.c_str());
        (void)printf(
            "%jd exclusive, %jd sets, %zu written, %jd refused; %jd processes, stopped "
            "%jd times; members harmed %jd times\n",
            counts_.exclusive, counts_.sets, judge_.writes(), counts_.lost, counts_.processes,
            counts_.stops, counts_.members);
        (void)printf("%jd acquisitions, %.0f a second, violations %zu\n", counts_.acquisitions,
                     static_cast<double>(counts_.acquisitions) / seconds_, wrong_.size());
        return wrong_.empty();
    }

  private:
    backend open_registry() {
        backend made = KEYVIEW_BACKEND_KIND.open(url_, open_mode::create);
        std::vector<change> changes;
        for (unsigned n = 0; n <= NAMES; ++n) {
            std::string name = n == NAMES ? PLANTED : numbered("n", static_cast<int>(n));
            for (unsigned k = 0; k < KEYS; ++k)
                changes.push_back(put(path_below(name, k)));
        }
        (void)made.keys->apply(changes);
        return made;
    }

    std::function<std::unique_ptr<own_process>()> maker(const std::string &name) {
        return [this, name] {
            std::string id = std::to_string(random_());
            std::string report = members_.directory() + "/" + id;
            return std::make_unique<own_process>(
                std::vector<std::string>{"client", url_, report, id, name,
                                         unchecked_ ? "unchecked" : ""},
                report);
        };
    }

    void await_entries(const std::string &queue, size_t count) {
        stopwatch watch;
        while (events_->count(queue) != count) {
            require(watch.ms() < 30000, "a queue does not become what it should");
            usleep(20000);
        }
    }

    // ---- Harm -----------------------------------------------------------------------------------

    int64_t from_to(int64_t least, int64_t most) {
        return std::uniform_int_distribution<int64_t>(least, most)(random_);
    }

    void later(int64_t wait_ms, std::function<void()> act) {
        due_.emplace(steady::now() + std::chrono::milliseconds(wait_ms), std::move(act));
    }

    void do_due() {
        while (!due_.empty() && due_.begin()->first <= steady::now()) {
            auto act = std::move(due_.begin()->second);
            due_.erase(due_.begin());
            act();
        }
    }

    // Some at nearly the same time. Then a pause: while a dead one is waited for, the others soon
    // wait for the same name.
    void plan_harm() {
        for (int64_t left = from_to(1, 4); left > 0; --left)
            later(from_to(0, 600), [this] { harm(); });
        next_harm_ = steady::now() + std::chrono::milliseconds(from_to(1500, 4500));
    }

    void harm() {
        int64_t kind = from_to(0, 9);
        if (kind < 3) return harm_member(kind);
        size_t victim = static_cast<size_t>(from_to(0, CLIENTS - 1));
        if (is_stopped_[victim]) return;
        if (kind < 6) return seats_[victim]->kill_it();
        is_stopped_[victim] = true;
        seats_[victim]->stop();
        later(from_to(200, 5000), [this, victim] {
            seats_[victim]->go_on();
            is_stopped_[victim] = false;
        });
    }

    // Never two at once, and the next one only when all take part again.
    void harm_member(int64_t kind) {
        if (member_is_harmed_) return;
        member_is_harmed_ = true;
        ++counts_.members;
        auto victim = static_cast<size_t>(from_to(0, static_cast<int64_t>(members_.count()) - 1));
        int64_t length_ms = from_to(100, 2000);
        if (kind == 1) {
            // Too short for another leader: what was sent to it twice is carried out twice.
            victim = members_.leader() % members_.count();
            length_ms = from_to(400, 900);
        }
        if (kind == 0) members_.kill(victim);
        if (kind > 0) members_.stop(victim);
        later(length_ms, [this, kind, victim] {
            if (kind == 0) members_.start(victim);
            if (kind > 0) members_.resume(victim);
            later(2000, [this, victim] {
                members_.await_ready(victim);
                member_is_harmed_ = false;
            });
        });
    }

    bool unchecked_;
    std::mt19937 random_;
    scratch_directory keys_;
    etcd_members members_;
    std::optional<required_login> login_;
    std::string url_ = members_.url(PREFIX);
    std::optional<event_log> events_;
    lock_judge judge_{PREFIX};
    backend registry_;
    totals counts_;
    std::vector<std::unique_ptr<seat>> seats_;
    std::vector<bool> is_stopped_;
    bool member_is_harmed_ = false;
    steady::time_point next_harm_;
    std::multimap<steady::time_point, std::function<void()>> due_;
    std::vector<std::string> wrong_;
    double seconds_ = 0;
};

static bool run_all(bool unchecked, bool users, int64_t acquisitions, unsigned seed) {
    arena one(unchecked, users, seed);
    one.plant();
    one.run(acquisitions);
    return one.verdict();
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    using namespace keyview::test;
    if (argc == 7 && std::string(argv[1]) == "client") return client_main(argv + 2);
    bool unchecked = argc > 1 && std::string(argv[1]) == "--unchecked";
    bool users = argc > 1 && std::string(argv[1]) == "--users";
    argc -= unchecked || users;
    argv += unchecked || users;
    (void)setenv("TMPDIR", "/dev/shm", 0);  // of the members: what is killed loses nothing there
    int64_t acquisitions = argc > 1 ? atoll(argv[1]) : 1000;
    auto seed = static_cast<unsigned>(argc > 2 ? strtoul(argv[2], nullptr, 10) : 20240607);
    try {
        return run_all(unchecked, users, acquisitions, seed) ? 0 : 1;
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "rivals: seed %u: %s\n", seed, error.what());
        return 1;
    }
}
