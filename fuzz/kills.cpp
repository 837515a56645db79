// Kills processes with SIGKILL in the middle of changes, and looks at what they leave: the registry
// passes its check, each flag is the old or the new one, a document is there in whole or not at
// all, and the next writer goes on.
//
// Usage: kills [ROUNDS [SEED]]; it prints how many kills hit a process at work.
#include <cstdio>
#include <cstdlib>
#include <random>

#include "cluster.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr int NEXT_WRITER_MS = 5000;

class victim_run {
  public:
    explicit victim_run(unsigned seed) : random_(seed) {
        expect_zero(keyview_host_set_registry(url_.c_str()), "keyview_host_set_registry");
        expect_zero(keyview_host_set_lock_wait(NEXT_WRITER_MS), "keyview_host_set_lock_wait");
        expect_done(admin::apply_document(cluster_document(0)), "apply");
    }

    void round(int number) {
        struct {
            int (*body)(const meeting &parent);
            const char *name;
        } const WORK[] = {{cascade, "cascade"}, {flags, "flags"}, {documents, "documents"}};
        const auto &work = WORK[random_() % 3];
        const auto &beside = WORK[random_() % 3];
        {
            child_process victim(work.body);
            if (!victim.here.wait()) throw std::runtime_error("a victim did not begin");
            if (number % 10 == 0) {
                child_process second(beside.body);
                (void)second.here.wait();
                pause();
            } else {
                pause();
            }
        }  // both are killed
        try {
            look();
        } catch (const std::exception &error) {
            throw std::runtime_error("after killing " + std::string(work.name) + " in round " +
                                     std::to_string(number) + ": " + error.what());
        }
    }

  private:
    static void expect_zero(int rc, const char *what) {
        if (rc != 0) throw std::runtime_error(what);
    }

    // Some at once, some after several commits.
    void pause() {
        uint32_t most_us = random_() % 2 == 0 ? 300 : 5000;
        usleep(static_cast<useconds_t>(random_() % most_us));
    }

    static int cascade(const meeting &parent) {
        context mine;
        for (int32_t enabled = 0;; enabled = 1 - enabled) {
            context::expect(prsr_set_service_enabled(mine.status, mine.ctx, "Db1", "Srv1", enabled),
                            "cascade");
            (void)parent.tell();
        }
    }

    static int flags(const meeting &parent) {
        context mine;
        for (int32_t enabled = 0;; enabled = 1 - enabled) {
            context::expect(prsr_set_db_enabled(mine.status, mine.ctx, "Db0", enabled), "flag");
            context::expect(
                prsr_set_db_role(mine.status, mine.ctx, "Db2",
                                 enabled == 0 ? PRSR_ROLE_PRIMARY : PRSR_ROLE_PHYSICAL_STANDBY),
                "role");
            (void)parent.tell();
        }
    }

    static int documents(const meeting &parent) {
        for (int version = 1;; ++version) {
            expect_done(admin::apply_document(cluster_document(version)), "apply");
            (void)parent.tell();
        }
    }

    // In a process of its own, which opens the registry anew.
    static void look() {
        child_process looker([](const meeting &) {
            admin::check_report report = admin::check_registry();
            expect_done(report, "check");
            look_at_words();
            look_at_versions();
            go_on();
            return 0;
        });
        if (looker.status() != 0) throw std::runtime_error("see above");
    }

    static nlohmann::json exported() {
        admin::export_result saved = admin::export_document();
        expect_done(saved, "export");
        return nlohmann::json::parse(saved.document);
    }

    // An export names only what a document can say, so each flag is one of two words already.
    static void look_at_words() {
        const nlohmann::json tree = exported();
        if (tree["databases"].size() != DATABASES) throw std::runtime_error("a database is gone");
    }

    // What a document changes in every database is of one version in all of them.
    static void look_at_versions() {
        const nlohmann::json tree = exported();
        for (const auto &database : tree["databases"]) {
            bool same =
                database["domain"] == tree["databases"][0]["domain"] &&
                database["spfile"] == tree["databases"][0]["spfile"] &&
                database["instances"][0]["node"] == tree["databases"][0]["instances"][0]["node"];
            if (!same) throw std::runtime_error("half of a document is there: " + tree.dump());
        }
    }

    static void go_on() {
        context mine;
        context::expect(prsr_set_service_enabled(mine.status, mine.ctx, "Db1", "Srv1", 1), "next");
        int32_t enabled = 0;
        for (int i = 0; i < INSTANCES; ++i) {
            context::expect(
                prsr_get_service_instance_enabled(mine.status, mine.ctx, "Db1", "Srv1",
                                                  numbered("Inst", i).c_str(), &enabled),
                "next");
            if (enabled != 1) throw std::runtime_error("the next writer's flag is not there");
        }
        expect_done(admin::apply_document(cluster_document(0)), "next apply");
    }

    scratch_directory scratch_;
    std::string url_ = "lmdb:" + scratch_.path + "/registry";
    std::mt19937 random_;
};

}  // namespace keyview::test

int main(int argc, char **argv) {
    int rounds = argc > 1 ? atoi(argv[1]) : 8;
    auto seed = static_cast<unsigned>(argc > 2 ? strtoul(argv[2], nullptr, 10) : 20240607);
    int round = 0;
    try {
        keyview::test::victim_run run(seed);
        for (; round < rounds; ++round)
            run.round(round);
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "kills: seed %u, %s\n", seed, error.what());
        return 1;
    }
    (void)printf("%d rounds of kill -9: every registry sound, every next writer went on\n", rounds);
    return 0;
}
