// What becomes of a lock of a cluster when its holder, or the cluster's leader, does not go on.
//
// A holder is stopped in the middle of a cascade for longer than its lease, a rival takes the lock
// and runs a cascade of its own, then the holder goes on: it must write nothing any more, and be
// told that the lock was lost.
//
// A holder is killed: who waits must have the lock within the time of the lease and a second.
//
// The leader is killed while calls go on: each must succeed soon, with the right result.
//
// Usage: fencing [--unfenced | --users] [ROUNDS [LEADERS]], rounds of stopped holders, killed
// leaders; with users whose tokens soon expire.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>

#include "cluster.h"
#include "cluster/cluster.h"
#include "cluster/faults.h"
#include "members.h"
#include "own_process.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr int AT_ONCE = 20;
static constexpr int KEYS = 20;  // of a cascade
static constexpr int KILLED_HOLDERS = 10;
static constexpr int CALLERS = 4;
static constexpr int64_t LEASE_TTL_MS = 2000;
static constexpr int64_t HANDOVER_MS = LEASE_TTL_MS + 1000;
static constexpr int64_t LONGEST_CALL_MS = 3000;
static constexpr uint32_t LONGEST_WAIT_MS = 20000;

static std::string lock_name(const std::string &name) {
    return "LKRT." + name;
}

static std::string key_of(const std::string &name, int n) {
    return name + "." + numbered("k", n % KEYS);
}

// ---- A holder -----------------------------------------------------------------------------------

// fencing holder URL REPORT NAME UNFENCED: runs one cascade after the other under one lock. Reports
// "held", then "set" for each set, and the text of the failure that ends it.
static int holder_main(char **words) {
    die_with_parent();
    (void)setenv("KEYVIEW_LEASE_TTL", std::to_string(LEASE_TTL_MS / 1000).c_str(), 1);
    faults.set_unfenced = std::string(words[3]) == "unfenced";
    report_file report(words[1]);
    try {
        backend registry = KEYVIEW_BACKEND_KIND.open(words[0], open_mode::existing);
        std::string name = words[2];
        auto held = registry.locks->acquire(lock_name(name), lock_mode::exclusive, LONGEST_WAIT_MS);
        report.line("held");
        for (int n = 0;; ++n) {
            require(registry.keys->set(key_of(name, n), numbered("holder ", n), held.get()),
                    "no key " + key_of(name, n));
            report.line("set");
        }
    } catch (const host_error &error) {
        report.line(error.what());
        return error.kind == failure::lock ? 1 : 2;
    }
}

class holder {
  public:
    holder(const etcd_members &members, const std::string &name, bool unfenced) {
        static std::atomic<int> holders{0};
        std::string report = members.directory() + "/" + numbered("holder", ++holders);
        process_ = std::make_unique<own_process>(
            std::vector<std::string>{"holder", members.url(), report, name,
                                     unfenced ? "unfenced" : ""},
            report);
    }

    own_process *operator->() const { return process_.get(); }

    void await_sets(int count) {
        stopwatch watch;
        for (int lines = 0; lines <= count; usleep(200)) {
            std::vector<std::string> news = process_->news();
            lines += static_cast<int>(news.size());
            if (!news.empty()) last = news.back();
            require(watch.ms() < DEADLINE_MS, "a holder does not set, after: " + last);
        }
    }

    std::string last = "nothing";  // that await_sets read

  private:
    std::unique_ptr<own_process> process_;
};

// ---- Threads ------------------------------------------------------------------------------------

// What a call threw; "" if nothing.
template <typename call>
static std::string failure_in(call &&run) {
    try {
        run();
        return "";
    } catch (const std::exception &error) {
        return error.what();
    }
}

// The same of calls in threads.
template <typename work>
static std::string at_once(int count, work &&body) {
    return failure_in([&] { in_threads(count, body); });
}

// ---- Rounds -------------------------------------------------------------------------------------

class proving_ground {
  public:
    explicit proving_ground(bool users)
        : members_(3, users ? short_lived_tokens(keys_.path) : std::vector<std::string>()) {
        if (users) login_.emplace(members_);
        registry_ = KEYVIEW_BACKEND_KIND.open(members_.url(), open_mode::create);
        std::vector<change> changes;
        for (int n = 0; n < AT_ONCE; ++n) {
            for (int k = 0; k < KEYS; ++k)
                changes.push_back(put(key_of(numbered("n", n), k)));
        }
        (void)registry_.keys->apply(changes);
    }

    // False if one was not as it should be.
    bool stop_holders(int rounds, bool unfenced) {
        std::atomic<int> wrong{0};
        for (int left = rounds; left > 0; left -= AT_ONCE) {
            std::string failed = at_once(std::min(left, AT_ONCE), [&](int n) {
                std::string fault = stop_a_holder(n, unfenced);
                if (fault.empty()) return;
                (void)fprintf(stderr, "fencing: %s\n", fault.c_str());
                ++wrong;
            });
            require(failed.empty(), failed);
        }
        (void)printf("%d holders stopped beyond their lease: %d wrong\n", rounds, wrong.load());
        return wrong == 0;
    }

    bool kill_holders() {
        std::atomic<int64_t> worst_ms{0};
        std::string failed = at_once(KILLED_HOLDERS, [&](int n) {
            int64_t ms = kill_a_holder(numbered("n", n));
            for (int64_t seen = worst_ms; seen < ms && !worst_ms.compare_exchange_weak(seen, ms);)
                continue;
        });
        require(failed.empty(), failed);
        (void)printf("%d holders killed: the longest wait for the lock was %jd ms of %jd\n",
                     KILLED_HOLDERS, worst_ms.load(), HANDOVER_MS);
        return worst_ms <= HANDOVER_MS;
    }

    bool kill_leaders(int count);

  private:
    void replace_leaders(int count);

    // What was wrong; "" if nothing was.
    std::string stop_a_holder(int number, bool unfenced) {
        std::string name = numbered("n", number);
        holder one(members_, name, unfenced);
        one.await_sets(number % KEYS);  // each somewhere else
        one->send(SIGSTOP);
        {
            auto held = acquire(name);
            for (int k = 0; k < KEYS; ++k) {
                require(registry_.keys->set(key_of(name, k), "rival", held.get()),
                        "no key of the rival");
            }
            for (const std::string &line : one->news())  // of before it stopped
                one.last = line;
            one->send(SIGCONT);
            usleep(300000);  // also while the rival still has the lock
        }
        if (unfenced) one->send(SIGKILL);  // it would go on for ever
        int status = one->status();
        std::vector<std::string> told = one->news();
        for (int k = 0; k < KEYS; ++k) {
            std::string value = stored(key_of(name, k));
            if (value != "rival") return key_of(name, k) + " is '" + value + "' after the loss";
        }
        // One set may have been done before the loss, and its answer read after it.
        auto sets = std::count(told.begin(), told.end(), "set");
        std::string last = told.empty() ? "nothing" : told.back();
        bool refused = status == 1 && last.find("the cluster lock was lost") != last.npos;
        return refused && sets <= 1
                   ? ""
                   : "the holder of " + name + " was told: " + last + ", before it: " + one.last +
                         ", status " + std::to_string(status);
    }

    int64_t kill_a_holder(const std::string &name) {
        holder one(members_, name, false);
        one.await_sets(KEYS);
        stopwatch watch;
        int64_t waited = 0;
        std::string failed;
        std::thread waiter([&] {
            failed = failure_in([&] { acquire(name); });
            waited = watch.ms();
        });
        usleep(500000);  // it waits by now
        one->kill_it();
        int64_t killed = watch.ms();
        waiter.join();
        require(failed.empty(), failed);
        return waited - killed;
    }

    std::shared_ptr<held_lock> acquire(const std::string &name) {
        return registry_.locks->acquire(lock_name(name), lock_mode::exclusive, LONGEST_WAIT_MS);
    }

    std::string stored(const std::string &path) {
        std::string value;
        return registry_.keys->now()->read(path, &value) ? value : "(none)";
    }

    scratch_directory keys_;
    etcd_members members_;
    std::optional<required_login> login_;
    backend registry_;

    friend class caller;
};

// ---- Calls while the leader dies ----------------------------------------------------------------

// Takes a lock, sets, reads and gives the lock back, again and again.
class caller {
  public:
    caller(proving_ground *ground, std::string name) : ground_(ground), name_(std::move(name)) {}

    void run(const std::atomic<bool> &over) {
        for (int n = 1; !over; ++n) {
            std::shared_ptr<held_lock> held;
            timed("acquire", [&] { held = ground_->acquire(name_); });
            std::string value = std::to_string(n);
            timed("set", [&] {
                require(ground_->registry_.keys->set(key_of(name_, n), value, held.get()),
                        "no key");
            });
            timed("read", [&] {
                std::string found = ground_->stored(key_of(name_, n));
                require(found == value, "read " + found + " after setting " + value);
            });
            timed("release", [&] { held.reset(); });
        }
    }

    int64_t worst_ms = 0;
    std::string slowest;
    int64_t calls = 0;

  private:
    template <typename call>
    void timed(const char *what, call &&run) {
        stopwatch watch;
        run();
        ++calls;
        if (watch.ms() <= worst_ms) return;
        worst_ms = watch.ms();
        slowest = what;
    }

    proving_ground *ground_;
    std::string name_;
};

// The members die with the thread that starts them, so that is the main one.
void proving_ground::replace_leaders(int count) {
    for (int n = 0; n < count; ++n) {
        size_t leader = members_.leader();
        require(leader < members_.count(), "the cluster has no leader");
        members_.kill(leader);
        usleep(LONGEST_CALL_MS * 1000);
        members_.start(leader);
        members_.await_ready(leader);
        usleep(500000);
    }
}

bool proving_ground::kill_leaders(int count) {
    std::vector<caller> callers;
    for (int n = 0; n < CALLERS; ++n)
        callers.emplace_back(this, numbered("n", n));
    std::atomic<bool> over{false};
    std::string failed;
    std::thread all([&] {
        failed = at_once(CALLERS, [&](int n) { callers[static_cast<size_t>(n)].run(over); });
    });
    std::string harm = failure_in([&] { replace_leaders(count); });
    over = true;
    all.join();
    require(harm.empty() && failed.empty(), "while leaders were killed: " + harm + failed);
    int64_t calls = 0;
    for (const caller &one : callers)
        calls += one.calls;
    auto worst =
        std::max_element(callers.begin(), callers.end(),
                         [](const caller &a, const caller &b) { return a.worst_ms < b.worst_ms; });
    (void)printf("%d leaders killed: %jd calls, the longest took %jd ms of %jd (%s)\n", count,
                 calls, worst->worst_ms, LONGEST_CALL_MS, worst->slowest.c_str());
    return worst->worst_ms <= LONGEST_CALL_MS;
}

static bool run_all(bool unfenced, bool users, int rounds, int leaders) {
    proving_ground ground(users);
    if (!ground.stop_holders(rounds, unfenced)) return false;
    if (unfenced) return true;  // which it should not be
    bool in_time = ground.kill_holders();
    return ground.kill_leaders(leaders) && in_time;
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    using namespace keyview::test;
    if (argc == 6 && std::string(argv[1]) == "holder") return holder_main(argv + 2);
    bool unfenced = argc > 1 && std::string(argv[1]) == "--unfenced";
    bool users = argc > 1 && std::string(argv[1]) == "--users";
    argc -= unfenced || users;
    argv += unfenced || users;
    (void)setenv("TMPDIR", "/dev/shm", 0);  // of the members: a slow disk must not end a lease
    int rounds = argc > 1 ? atoi(argv[1]) : AT_ONCE;
    try {
        return run_all(unfenced, users, rounds, argc > 2 ? atoi(argv[2]) : 1) ? 0 : 1;
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "fencing: %s\n", error.what());
        return 1;
    }
}
