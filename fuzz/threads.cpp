// Eight threads with a context each, at once: fetches, lists, look-ups, flags and roles, documents
// going in and out, locks in each other's way, contexts that come and go, and records that another
// thread gives back. For the thread sanitizer; what has one right answer is compared, too, and no
// step may hang.
//
// Usage: threads [SECONDS [SEED]]; each second has a registry of its own, which grows from nothing.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>

#include "cluster.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr int THREADS = 8;
static constexpr int64_t LONGEST_STEP_MS = 20000;
static constexpr const char *COUNTER_LOCK = "LKRT.counter";

// What the threads of a registry share.
struct common {
    // Records on their way to whoever gives them back.
    prsr_cfg *hand_over(prsr_cfg *cfg, std::mt19937 *random) {
        std::lock_guard guard(mutex);
        return std::exchange(records[(*random)() % std::size(records)], cfg);
    }

    std::mutex mutex;
    prsr_cfg *records[4] = {};

    // Counted in two steps under a lock of the registry, and in one: nothing may be lost.
    std::atomic<int64_t> under_lock{0};
    std::atomic<int64_t> counted{0};
};

class worker {
  public:
    worker(int number, unsigned seed, common *all)
        : number_(number), random_(seed + static_cast<unsigned>(number)), all_(all) {
        context_ = std::make_unique<context>();
    }

    void step() {
        static constexpr struct {
            void (worker::*run)();
            const char *name;
        } STEPS[] = {
            {&worker::fetch, "fetch"},       {&worker::fetch, "fetch"},
            {&worker::list, "list"},         {&worker::roster, "roster"},
            {&worker::flag, "flag"},         {&worker::cascade, "cascade"},
            {&worker::role, "role"},         {&worker::look_up, "look_up"},
            {&worker::missing, "missing"},   {&worker::count, "count"},
            {&worker::count, "count"},       {&worker::refuse, "refuse"},
            {&worker::renew, "renew"},       {&worker::put_in, "put_in"},
            {&worker::take_out, "take_out"}, {&worker::fill, "fill"},
            {&worker::fill, "fill"},
        };
        const auto &next = STEPS[random_() % std::size(STEPS)];
        stopwatch watch;
        (this->*next.run)();
        require(watch.ms() < LONGEST_STEP_MS, std::string(next.name) + " hung");
    }

    void give_back_all() {
        for (prsr_cfg *&record : all_->records)
            (void)prsr_release_db_config(status(), ctx(), std::exchange(record, nullptr));
    }

  private:
    prsr_ctx *ctx() const { return context_->ctx; }
    char *status() const { return context_->status; }
    int any_of(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }
    std::string any_database() { return numbered("DB", any_of(DATABASES)); }

    // Flags that this thread alone changes.
    std::string own_database() const { return numbered("Db", number_ % DATABASES); }
    std::string own_instance() const { return numbered("Inst", number_ / DATABASES); }

    // What belongs together is of one moment: one version of the document, one cascade.
    static void require_whole(const prsr_cfg &cfg) {
        require(cfg.instance_count == INSTANCES && cfg.service_count == SERVICES, "a short record");
        int version = atoi(cfg.domain + 1);
        require(cfg.domain == domain_of(version) &&
                    strlen(cfg.spfile) == spfile_length_of(version) &&
                    cfg.env_n == env_count_of(version),
                std::string("two versions in one record: ") + cfg.domain + " and " + cfg.spfile);
        const prsr_srv_cfg &last = *cfg.services[SERVICES - 1];
        require(last.preferred_count == INSTANCES, "a short service");
        for (int i = 0; i < INSTANCES; ++i) {
            require(last.preferred[i] == numbered("Inst", i), "a name of a service instance");
            require(last.preferred_enabled[i] == last.enabled, "half of a cascade");
        }
    }

    void fetch() {
        prsr_cfg *cfg = nullptr;
        std::string name = any_database();
        context::expect(prsr_fetch_db_config(status(), ctx(), name.c_str(), &cfg), "fetch");
        require(strcasecmp(cfg->sp_name, name.c_str()) == 0, "another database's record");
        require_whole(*cfg);
        cfg = all_->hand_over(cfg, &random_);
        if (cfg != nullptr) require_whole(*cfg);
        context::expect(prsr_release_db_config(status(), ctx(), cfg), "release");
    }

    void list() {
        char **names = nullptr;
        uint32_t count = 0;
        context::expect(prsr_list_db(status(), ctx(), &names, &count), "list");
        require(count == DATABASES, "a list's length");
        for (int d = 0; d < DATABASES; ++d)
            require(names[d] == numbered("Db", d), "a list");
        (void)prsr_release_db_list(status(), ctx(), names, count);
    }

    void roster() {
        char **names = nullptr;
        char **nodes = nullptr;
        int32_t *avail = nullptr;
        uint32_t count = 0;
        context::expect(prsr_get_srv_instances(status(), ctx(), any_database().c_str(), "Srv0",
                                               &names, &nodes, &avail, &count),
                        "roster");
        require(count == INSTANCES, "a roster's length");
        for (int i = 0; i < INSTANCES; ++i) {
            bool right = names[i] == numbered("Inst", i) && nodes[i] == numbered("node", i);
            require(right && avail[i] == 0, "a roster");
        }
        (void)prsr_release_srv_instances(status(), ctx(), names, nodes, avail, count);
    }

    void flag() {
        std::string db = own_database();
        std::string inst = own_instance();
        int32_t enabled = any_of(2);
        int32_t found = -1;
        context::expect(prsr_set_service_instance_enabled(status(), ctx(), db.c_str(), "Srv1",
                                                          inst.c_str(), enabled),
                        "set flag");
        context::expect(prsr_get_service_instance_enabled(status(), ctx(), db.c_str(), "Srv1",
                                                          inst.c_str(), &found),
                        "get flag");
        require(found == enabled, "a flag is not what was set");
        context::expect(prsr_set_db_enabled(status(), ctx(), any_database().c_str(), enabled),
                        "set database flag");
    }

    void cascade() {
        context::expect(
            prsr_set_service_enabled(status(), ctx(), any_database().c_str(), "Srv2", any_of(2)),
            "cascade");
    }

    void role() {
        int32_t role = any_of(4);
        int32_t found = -1;
        bool owner = number_ < DATABASES;
        std::string db = owner ? own_database() : any_database();
        if (owner) context::expect(prsr_set_db_role(status(), ctx(), db.c_str(), role), "set role");
        context::expect(prsr_get_db_role(status(), ctx(), db.c_str(), &found), "get role");
        require(owner ? found == role : found >= 0 && found < 4, "a role");
    }

    void look_up() {
        char name[64] = "";
        std::string db = any_database();
        int i = any_of(INSTANCES);
        context::expect(prsr_get_spname(status(), ctx(), db.c_str(), sizeof(name), name), "name");
        require(name == numbered("Db", db.back() - '0'), "a database's name");
        context::expect(
            prsr_get_node_instance_name(status(), ctx(), db.c_str(), numbered("NODE", i).c_str(),
                                        sizeof(name), name),
            "node");
        require(name == numbered("Inst", i), "the instance of a node");
    }

    // A failure is told to the thread that it happened to.
    void missing() {
        prsr_cfg *cfg = nullptr;
        std::string name = numbered("none", number_);
        int32_t rc = prsr_fetch_db_config(status(), ctx(), name.c_str(), &cfg);
        require(rc == PRSR_ERR_NO_DATABASE && cfg == nullptr, "a database that is not there");
        require(strstr(keyview_host_last_error(), name.c_str()) != nullptr, "another's failure");
    }

    // Nobody comes between the two steps of who counts, and nothing changes before who looks.
    void count() {
        bool looks = any_of(2) == 0;
        locker mine;
        int32_t rc = looks ? mine.shared(COUNTER_LOCK) : mine.exclusive(COUNTER_LOCK);
        require(rc == 0, "the lock of the counter");
        int64_t before = all_->under_lock.load();
        usleep(500);
        if (looks) {
            require(all_->under_lock.load() == before, "a lock let a writer in beside a reader");
        } else {
            all_->under_lock.store(before + 1);
            ++all_->counted;
        }
        require(mine.unlock(COUNTER_LOCK) == 0, "the end of the counter's lock");
    }

    // A lock that this thread itself stands in the way of.
    void refuse() {
        locker mine;
        std::string db = own_database();
        std::string name = "LKRT.DATABASE.DATABASES.db" + db.substr(2);
        require(mine.shared(name.c_str()) == 0, "a shared lock");
        int32_t rc = prsr_set_db_enabled(status(), ctx(), db.c_str(), 1);
        require(rc == PRSR_ERR_LOCK, "a lock that had to be refused");
    }

    void renew() { context_ = std::make_unique<context>(); }

    void put_in() { apply(any_of(50)); }

    // Makes the file grow beside those who hold locks of databases.
    void fill() {
        filled_ = std::min<size_t>(filled_ + 30000, 900000);
        apply_filler(number_, filled_);
    }

    void take_out() {
        const std::vector<std::string> domains = exported_domains();
        for (const std::string &domain : domains)
            require(domain == domains[0], "two versions in one export");
    }

    int number_;
    size_t filled_ = 0;
    std::mt19937 random_;
    common *all_;
    std::unique_ptr<context> context_;
};

// One registry for about a second; returns how many steps were made.
static int64_t run(unsigned seed) {
    scratch_directory scratch;
    require(keyview_host_set_registry(("lmdb:" + scratch.path + "/registry").c_str()) == 0, "URL");
    apply(0, true);
    common all;
    stopwatch watch;
    std::atomic<bool> failed{false};
    std::atomic<int64_t> steps{0};
    in_threads(THREADS, [&](int thread) {
        try {
            for (worker mine(thread, seed, &all); !failed && watch.ms() < 1000; ++steps)
                mine.step();
        } catch (const std::exception &error) {
            failed = true;
            (void)fprintf(stderr, "threads: seed %u, thread %d: %s\n", seed, thread, error.what());
        }
    });
    worker(0, seed, &all).give_back_all();
    require(!failed, "see above");
    require(all.under_lock == all.counted, "a lock let two threads in");
    return steps;
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    int seconds = argc > 1 ? atoi(argv[1]) : 2;
    auto seed = static_cast<unsigned>(argc > 2 ? strtoul(argv[2], nullptr, 10) : 20240607);
    int64_t steps = 0;
    try {
        for (int i = 0; i < seconds; ++i)
            steps += keyview::test::run(seed + static_cast<unsigned>(i));
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "threads: seed %u and the next ones: %s\n", seed, error.what());
        return 1;
    }
    (void)printf("%d threads: %jd steps\n", keyview::test::THREADS, static_cast<intmax_t>(steps));
    return 0;
}
