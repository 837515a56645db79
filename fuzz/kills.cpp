// Kills processes with SIGKILL in the middle of changes, and inspects what they leave. A change
// that was reported is there; of the one under way a document is there in whole or not at all, and
// a cascade up to one of its flags. The next writer goes on at once, and a context that was open
// all the time sees what is stored.
//
// Usage: kills [ROUNDS [SEED]]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "admin/care/inspection.h"
#include "cluster.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr int NEXT_WRITER_MS = 5000;
static constexpr int ROUNDS_OF_A_REGISTRY = 16;  // then another one grows from nothing
static const std::string ROOT = "DATABASE.DATABASES.";

// ---- Victims ------------------------------------------------------------------------------------

// Step n, from 1 on, replaces what step n - 1 left; step 0 is what was there before.
struct work {
    const char *name;
    void (*step)(context *mine, int n);
};

static int32_t flag_after(int step) {
    return step % 2 == 0 ? 1 : 0;
}

static void cascade(context *mine, int n) {
    int32_t rc = prsr_set_service_enabled(mine->status, mine->ctx, "Db1", "Srv1", flag_after(n));
    context::expect(rc, "prsr_set_service_enabled");
}

static void flag(context *mine, int n) {
    context::expect(prsr_set_db_enabled(mine->status, mine->ctx, "Db0", flag_after(n)),
                    "prsr_set_db_enabled");
}

static void document(context *, int n) {
    apply(n);
}

static const work CASCADE = {"cascade", cascade};
static const work FLAG = {"flag", flag};
static const work DOCUMENT = {"document", document};
static const work *const ALL_WORK[] = {&CASCADE, &FLAG, &DOCUMENT, &DOCUMENT};

// How long a step takes on this machine at present. Leaves what was there before.
static int64_t step_us(const work *one) {
    context mine;
    stopwatch watch;
    one->step(&mine, 1);
    one->step(&mine, 0);
    return watch.us() / 2;
}

class victim {
  public:
    explicit victim(const work *its_work)
        : what(its_work), process_([its_work](const meeting &parent) {
              context mine;
              for (int n = 1; parent.tell(); ++n)
                  its_work->step(&mine, n);
              return 1;
          }) {}

    // Waits until it begins its n-th step, from now on.
    void wait(int n) {
        for (; begun_ < n; ++begun_)
            require(process_.here.wait(), std::string("no ") + what->name + " began");
    }

    // Returns how many of its steps were done; one more may have been under way.
    int kill_it() {
        (void)::kill(process_.pid, SIGKILL);
        require(process_.status() == -1, std::string("a ") + what->name + " failed by itself");
        char notices[4096];
        ssize_t more = recv(process_.here.fd, notices, sizeof(notices), MSG_DONTWAIT);
        begun_ += static_cast<int>(std::max<ssize_t>(more, 0));
        return std::max(begun_ - 1, 0);
    }

    const work *what;

  private:
    child_process process_;
    int begun_ = 0;
};

struct killed {
    const work *what;
    int done;
};

// ---- What they leave ----------------------------------------------------------------------------

// Reads every key that can be reached, and with each its checksum.
static void read_all_keys(const client &keys, const std::string &path) {
    void *key = nullptr;
    require(keys.open(path, &key) == 0, "a listed key does not open: " + path);
    std::vector<std::string> names;
    int32_t rc = 0;
    for (int32_t last = 0; rc == 0;) {
        char name[2048];
        uint32_t size = sizeof(name);
        rc = kvtc_enum_subkey(keys.reg, key, name, &size, &last);
        if (rc == 0) names.emplace_back(name);
    }
    (void)kvtc_close_key(keys.reg, key);
    require(rc == KVTC_ERR_NO_MORE_KEYS, "a list ends early: " + path);
    for (const std::string &name : names)
        read_all_keys(keys, path.empty() ? name : path + "." + name);
}

static void registry_is_sound() {
    require(admin::check_registry().findings.empty(), "the check reports damage");
    (void)exported_domains();
    read_all_keys(client(), "DATABASE");
}

static int32_t flag_at(const client &keys, const std::string &path) {
    std::string word = keys.read(ROOT + path);
    bool on = word == std::string("true\0", 5);
    require(on || word == std::string("false\0", 6), path + " holds '" + word + "'");
    return on ? 1 : 0;
}

// In the order of the cascade.
static std::vector<int32_t> cascade_flags(const client &keys) {
    const std::string service = "db1.SERVICE.srv1.";
    std::vector<int32_t> flags = {flag_at(keys, service + "ENABLED")};
    for (int i = 0; i < INSTANCES; ++i)
        flags.push_back(flag_at(keys, service + "INSTANCES." + numbered("inst", i) + ".ENABLED"));
    return flags;
}

// Whether the flags are the new ones up to one of them and the old ones behind it.
static bool is_part_of_cascade(const std::vector<int32_t> &flags, int done) {
    auto turn = std::find(flags.begin(), flags.end(), flag_after(done));
    return std::count(turn, flags.end(), flag_after(done)) == flags.end() - turn;
}

static void require_flags(const client &keys, const killed &one) {
    std::vector<int32_t> flags = cascade_flags(keys);
    std::string text;
    for (int32_t each : flags)
        text += std::to_string(each);
    int done = one.what == &CASCADE ? one.done : 0;
    bool all = std::count(flags.begin(), flags.end(), 1) == INSTANCES + 1;
    require(one.what == &CASCADE ? is_part_of_cascade(flags, done) : all,
            "after " + std::to_string(done) + " cascades the flags are " + text);
    require(flag_at(keys, "db0.ENABLED") == 1 || one.what == &FLAG, "a flag changed by itself");
}

// After flags were set: everything else must be one version of the document.
static void require_version(const std::set<int> &possible) {
    const std::string domain = exported_domains().at(0);
    int version = atoi(domain.c_str() + 1);
    require(domain == domain_of(version) && possible.count(version) == 1,
            "the version is " + domain + ", which was not written last");
    const std::string difference = difference_from(version);
    require(difference.empty(),
            "version " + std::to_string(version) + " is not there in whole: " + difference);
}

// The next writers, which find all locks free: first those of the same flags, which are all set
// then, also if they were set before; then one that certainly changes something.
static void go_on() {
    stopwatch watch;
    context mine;
    cascade(&mine, 0);
    flag(&mine, 0);
    for (int32_t role : {PRSR_ROLE_LOGICAL_STANDBY, PRSR_ROLE_PRIMARY})
        context::expect(prsr_set_db_role(mine.status, mine.ctx, "Db3", role), "prsr_set_db_role");
    require(watch.ms() < NEXT_WRITER_MS, "the next writers took too long");
}

// ---- A context that stays open ------------------------------------------------------------------

class watcher {
  public:
    // Compares what it fetches, from copies that it may have kept, with what is stored.
    void require_same() {
        client keys;
        for (int d = 0; d < DATABASES; ++d) {
            prsr_cfg *cfg = nullptr;
            context::expect(
                prsr_fetch_db_config(open_.status, open_.ctx, numbered("Db", d).c_str(), &cfg),
                "prsr_fetch_db_config");
            std::string seen = shown(*cfg);
            (void)prsr_release_db_config(open_.status, open_.ctx, cfg);
            std::string there = stored(keys, numbered("db", d));
            require(seen == there, "an open context sees " + seen + ", stored is " + there);
        }
    }

  private:
    static std::string shown(const prsr_cfg &cfg) {
        std::string text = std::string(cfg.domain) + " " + cfg.spfile + " ";
        text += std::to_string(cfg.enabled);
        for (uint32_t s = 0; s < cfg.service_count; ++s) {
            text += std::to_string(cfg.services[s]->enabled);
            for (uint32_t i = 0; i < cfg.services[s]->preferred_count; ++i)
                text += std::to_string(cfg.services[s]->preferred_enabled[i]);
        }
        return text;
    }

    static std::string stored(const client &keys, const std::string &name) {
        std::string domain = keys.read(ROOT + name + ".DOMAIN");
        std::string spfile = keys.read(ROOT + name + ".SPFILE");
        std::string text = std::string(domain.c_str()) + " " + spfile.c_str() + " ";
        text += std::to_string(flag_at(keys, name + ".ENABLED"));
        for (int s = 0; s < SERVICES; ++s) {
            std::string service = name + ".SERVICE." + numbered("srv", s);
            text += std::to_string(flag_at(keys, service + ".ENABLED"));
            for (int i = 0; i < INSTANCES; ++i) {
                std::string member = service + ".INSTANCES." + numbered("inst", i);
                text += std::to_string(flag_at(keys, member + ".ENABLED"));
            }
        }
        return text;
    }

    context open_;
};

// ---- Rounds -------------------------------------------------------------------------------------

class killing_ground {
  public:
    killing_ground() {
        require(keyview_host_set_registry(url_.c_str()) == 0, "no registry");
        require(keyview_host_set_lock_wait(NEXT_WRITER_MS) == 0, "no lock wait");
        apply(0, true);
        for (const work *one : ALL_WORK)
            step_us_[one] = step_us(one);
    }

    // In half of the rounds this process has the registry open meanwhile: then new processes do
    // not begin with fresh reader slots and mutexes.
    void round(int number, std::mt19937 *random) {
        if (number % 4 == 0) watcher_ = std::make_unique<watcher>();
        if (number % 4 == 2) watcher_.reset();
        if (watcher_ != nullptr) watcher_->require_same();
        std::vector<killed> dead = kill_some(number % 10 == 9 ? 2 : 1, random);
        if (watcher_ != nullptr) watcher_->require_same();
        child_process inspector([&](const meeting &) { return inspect(dead), 0; });
        require(inspector.status() == 0, "see above, after killing a " + name_all(dead));
        if (watcher_ != nullptr) watcher_->require_same();
    }

  private:
    // Some while they still open the registry, others at any point of one of their first steps.
    std::vector<killed> kill_some(int count, std::mt19937 *random) const {
        auto up_to = [random](int64_t most) {
            return std::uniform_int_distribution<int64_t>(0, most)(*random);
        };
        std::vector<std::unique_ptr<victim>> victims;
        for (int i = 0; i < count; ++i)
            victims.push_back(std::make_unique<victim>(ALL_WORK[up_to(3)]));
        auto begun = static_cast<int>(up_to(4));
        for (auto &one : victims)
            one->wait(begun);
        std::vector<killed> dead;
        for (auto &one : victims) {
            const int64_t most_us[] = {300, 5000, step_us_.at(one->what)};
            usleep(static_cast<useconds_t>(up_to(most_us[up_to(2)])));
            dead.push_back({one->what, one->kill_it()});
        }
        return dead;
    }

    static std::string name_all(const std::vector<killed> &dead) {
        std::string text;
        for (const killed &one : dead)
            text += std::string(one.what->name) + " after " + std::to_string(one.done) + " steps ";
        return text;
    }

    // In a process of its own, which opens the registry anew.
    static void inspect(const std::vector<killed> &dead) {
        registry_is_sound();
        if (dead.size() == 1) require_flags(client(), dead[0]);
        go_on();
        std::set<int> possible;
        for (const killed &one : dead)
            if (one.what == &DOCUMENT) possible.insert({one.done, one.done + 1});
        if (possible.empty()) possible = {0};
        require_version(possible);
        apply(0);
        require_version({0});
    }

    scratch_directory scratch_;
    std::string url_ = "lmdb:" + scratch_.path + "/registry";
    std::map<const work *, int64_t> step_us_;
    std::unique_ptr<watcher> watcher_;
};

}  // namespace keyview::test

int main(int argc, char **argv) {
    using namespace keyview::test;
    int rounds = argc > 1 ? atoi(argv[1]) : 8;
    auto seed = static_cast<unsigned>(argc > 2 ? strtoul(argv[2], nullptr, 10) : 20240607);
    (void)setenv("TMPDIR", "/var/tmp", 0);  // on a disk, where a commit takes its time
    std::unique_ptr<killing_ground> ground;
    for (int round = 0; round < rounds; ++round) {
        try {
            std::mt19937 random(seed + static_cast<unsigned>(round));
            if (round % ROUNDS_OF_A_REGISTRY == 0) ground = std::make_unique<killing_ground>();
            ground->round(round, &random);
        } catch (const std::exception &error) {
            (void)fprintf(stderr, "kills: seed %u, round %d: %s\n", seed, round, error.what());
            return 1;
        }
    }
    (void)printf("%d rounds of kill -9: every registry sound, every next writer went on\n", rounds);
    return 0;
}
