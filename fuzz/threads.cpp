// Eight threads with a context each, at once: fetches, lists, look-ups, flags and roles, documents
// going in and out, contexts that come and go, and records that another thread gives back. For the
// thread sanitizer; what has only one right answer is compared, too.
//
// Usage: threads [SECONDS [SEED]]
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>

#include "cluster.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr int THREADS = 8;

static void require(bool holds, const char *what) {
    if (!holds) throw std::runtime_error(std::string("wrong: ") + what);
}

// A record on its way to another thread.
class handed_over {
  public:
    prsr_cfg *exchange(prsr_cfg *cfg) {
        std::lock_guard guard(mutex_);
        return std::exchange(cfg_, cfg);
    }

  private:
    std::mutex mutex_;
    prsr_cfg *cfg_ = nullptr;
};

class worker {
  public:
    worker(unsigned seed, handed_over *records) : random_(seed), records_(records) {
        context_ = std::make_unique<context>();
    }

    void step() {
        static constexpr void (worker::*STEPS[])() = {
            &worker::fetch,   &worker::fetch, &worker::fetch,   &worker::list,
            &worker::roster,  &worker::flag,  &worker::cascade, &worker::role,
            &worker::look_up, &worker::renew, &worker::apply,   &worker::save,
        };
        (this->*STEPS[random_() % std::size(STEPS)])();
    }

    void give_back_last() {
        prsr_cfg *other = records_->exchange(nullptr);
        if (other != nullptr) (void)prsr_release_db_config(status(), ctx(), other);
    }

  private:
    prsr_ctx *ctx() const { return context_->ctx; }
    char *status() const { return context_->status; }
    std::string database() { return numbered("Db", static_cast<int>(random_() % DATABASES)); }

    void fetch() {
        prsr_cfg *cfg = nullptr;
        context::expect(prsr_fetch_db_config(status(), ctx(), database().c_str(), &cfg), "fetch");
        require(cfg->instance_count == INSTANCES && cfg->service_count == SERVICES, "a record");
        prsr_cfg *other = records_->exchange(cfg);
        if (other != nullptr) (void)prsr_release_db_config(status(), ctx(), other);
    }

    void list() {
        char **names = nullptr;
        uint32_t count = 0;
        context::expect(prsr_list_db(status(), ctx(), &names, &count), "list");
        require(count == DATABASES && strcmp(names[0], "Db0") == 0, "a list");
        (void)prsr_release_db_list(status(), ctx(), names, count);
    }

    void roster() {
        char **names = nullptr;
        char **nodes = nullptr;
        int32_t *flags = nullptr;
        uint32_t count = 0;
        context::expect(prsr_get_srv_instances(status(), ctx(), database().c_str(), "Srv0", &names,
                                               &nodes, &flags, &count),
                        "roster");
        require(count == INSTANCES, "a roster");
        (void)prsr_release_srv_instances(status(), ctx(), names, nodes, flags, count);
    }

    void flag() {
        std::string name = database();
        int32_t enabled = static_cast<int32_t>(random_() % 2);
        context::expect(prsr_set_service_instance_enabled(status(), ctx(), name.c_str(), "Srv1",
                                                          "Inst1", enabled),
                        "flag");
        context::expect(prsr_get_service_instance_enabled(status(), ctx(), name.c_str(), "Srv1",
                                                          "Inst1", &enabled),
                        "flag");
    }

    void cascade() {
        context::expect(prsr_set_service_enabled(status(), ctx(), database().c_str(), "Srv2",
                                                 static_cast<int32_t>(random_() % 2)),
                        "cascade");
    }

    void role() {
        std::string name = database();
        int32_t role = static_cast<int32_t>(random_() % 4);
        context::expect(prsr_set_db_role(status(), ctx(), name.c_str(), role), "role");
        context::expect(prsr_get_db_role(status(), ctx(), name.c_str(), &role), "role");
        require(role >= 0 && role < 4, "a role");
    }

    void look_up() {
        char name[64] = "";
        context::expect(prsr_get_instance_name(status(), ctx(), database().c_str(), "INST3",
                                               sizeof(name), name),
                        "name");
        require(strcmp(name, "Inst3") == 0, "a name");
    }

    void renew() { context_ = std::make_unique<context>(); }

    void apply() {
        admin::apply_result done = admin::apply_document(cluster_document(int(random_() % 50)));
        expect_done(done, "apply");
    }

    void save() { expect_done(admin::export_document(), "export"); }

    std::mt19937 random_;
    handed_over *records_;
    std::unique_ptr<context> context_;
};

static int run(int seconds, unsigned seed) {
    scratch_directory scratch;
    std::string url = "lmdb:" + scratch.path + "/registry";
    if (keyview_host_set_registry(url.c_str()) != 0) return 2;
    expect_done(admin::apply_document(cluster_document(0)), "apply");
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    std::atomic<int> failed{0};
    std::atomic<int64_t> steps{0};
    handed_over records;
    in_threads(THREADS, [&](int thread) {
        try {
            worker mine(seed + static_cast<unsigned>(thread), &records);
            for (; failed == 0 && std::chrono::steady_clock::now() < end; ++steps)
                mine.step();
            mine.give_back_last();
        } catch (const std::exception &error) {
            (void)fprintf(stderr, "threads: seed %u, thread %d: %s\n", seed, thread, error.what());
            ++failed;
        }
    });
    (void)printf("%d threads: %jd steps\n", THREADS, static_cast<intmax_t>(steps.load()));
    return failed == 0 ? 0 : 1;
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    int seconds = argc > 1 ? atoi(argv[1]) : 2;
    auto seed = static_cast<unsigned>(argc > 2 ? strtoul(argv[2], nullptr, 10) : 20240607);
    return keyview::test::run(seconds, seed);
}
