// The table of steps.
#include "steps.h"

#include <cstdio>
#include <memory>

#include "../../tests/host/registry.h"
#include "../cluster.h"
#include "admin/care/backup.h"
#include "admin/care/inspection.h"
#include "admin/document/document.h"
#include "admin/registry.h"
#include "keyview/if/prsr.hpp"

namespace keyview::test {

static constexpr int64_t LONGEST_STEP_MS = 20000;
static constexpr int SMALL_CHANGES = 40;
static constexpr size_t LARGE_VALUE = 700000;
static constexpr int LARGE_VALUES = 2;
static constexpr const char *NODE = "node0";

static const std::string OTHERS = R"({"format": "keyview-cluster", "version": 1,
    "stg": [{"scope": "node0", "name": "Mgr", "spfile": "s", "enabled": true, "env": ["A=1", "B=2"]}],
    "nodeapps": [{"name": "node0", "home": "/opt/x", "vip": "10.0.0.1", "netmask": "255.0.0.0",
                  "interfaces": "eth0", "env": ["LISTENER_PORT=1"]}]})";

void fill_registry() {
    apply(0, true);
    (void)admin::apply_document(OTHERS, {});
}

void fill_history() {
    auto made = prsr::context::init();
    prsr::context ctx = std::move(made).value();
    for (int n = 0; n < SMALL_CHANGES; ++n)
        context::expect(ctx.set_db_enabled("Db0", n % 2 == 1).code(), "set_db_enabled");
}

void grow_file() {
    for (int n = 0; n < LARGE_VALUES; ++n)
        apply_filler(n, LARGE_VALUE);
    for (int n = 0; n < LARGE_VALUES; ++n) {
        const std::string path = "DATABASE.STG.node0." + numbered("filler", n);
        const admin::key_row removal{path, {}};
        admin::registry::open().apply(
            1, [&](size_t) { return removal; }, {}, 0);
    }
}

// The code of what must succeed.
template <class RESULT>
static void good(const RESULT &result, const char *what) {
    context::expect(result.code(), what);
}

static void refused(int32_t code, int32_t expected, const char *what) {
    require(code == expected, std::string(what) + " gave " + std::to_string(code));
}

struct soak_steps {
    soak_worker &by;
    prsr::context ctx;

    std::string db() { return numbered("Db", by.any_of(DATABASES)); }
    std::string srv() { return numbered("Srv", by.any_of(SERVICES)); }
    std::string inst() { return numbered("Inst", by.any_of(INSTANCES)); }
    bool flag() { return by.any_of(2) == 0; }

    // ---- The library ----

    void records() {
        good(ctx.fetch_db_config(db()), "fetch_db_config");
        good(ctx.fetch_stg_config(NODE, "Mgr"), "fetch_stg_config");
        good(ctx.fetch_nodeapps_config(NODE), "fetch_nodeapps_config");
    }
    void lists() {
        good(ctx.list_db(), "list_db");
        good(ctx.get_srv_instances(db(), srv()), "get_srv_instances");
        good(ctx.get_domain(db()), "get_domain");
    }
    void facts() {
        good(ctx.get_db_enabled(db()), "get_db_enabled");
        good(ctx.get_instance_enabled(db(), inst()), "get_instance_enabled");
        good(ctx.get_service_enabled(db(), srv()), "get_service_enabled");
        good(ctx.get_service_instance_enabled(db(), srv(), inst()), "get_service_instance_enabled");
        good(ctx.get_service_instance_supported(db(), srv(), inst()),
             "get_service_instance_supported");
        good(ctx.get_stg_enabled(NODE, "Mgr"), "get_stg_enabled");
        good(ctx.get_db_role(db()), "get_db_role");
        good(ctx.get_service_rcn_policy(db(), srv()), "get_service_rcn_policy");
    }
    void names() {
        good(ctx.get_spname(db()), "get_spname");
        good(ctx.get_instance_name(db(), inst()), "get_instance_name");
        good(ctx.get_node_instance_name(db(), NODE), "get_node_instance_name");
        good(ctx.get_stg_name(NODE, "Mgr"), "get_stg_name");
    }
    void flags() {
        good(ctx.set_db_enabled(db(), flag()), "set_db_enabled");
        good(ctx.set_instance_enabled(db(), inst(), flag()), "set_instance_enabled");
        good(ctx.set_service_instance_enabled(db(), srv(), inst(), flag()),
             "set_service_instance_enabled");
    }
    void cascade() { good(ctx.set_service_enabled(db(), srv(), flag()), "set_service_enabled"); }
    void role() {
        good(ctx.set_db_role(db(), static_cast<prsr::role>(by.any_of(4))), "set_db_role");
    }
    void failures() {
        refused(ctx.fetch_db_config("none").code(), PRSR_ERR_NO_DATABASE, "a missing database");
        refused(ctx.fetch_stg_config(NODE, "none").code(), PRSR_ERR_NO_STG, "a missing entry");
        refused(ctx.fetch_nodeapps_config("none").code(), PRSR_ERR_NO_NODEAPPS, "a missing node");
        refused(ctx.get_db_role("none").code(), PRSR_ERR_REGISTRY, "a missing role");
    }
    // A lock that this thread itself stands in the way of.
    void refused_lock() {
        locker mine;
        require(mine.shared("LKRT.DATABASE.DATABASES.db0") == 0, "a shared lock");
        refused(ctx.set_db_enabled("Db0", true).code(), PRSR_ERR_LOCK, "a lock to be refused");
    }
    void lent_locks() {
        locker mine;
        auto made = prsr::context::init_ext(mine.lk);
        prsr::context lent = std::move(made).value();
        good(lent.get_db_enabled(db()), "get_db_enabled");
    }
    void renew() { ctx = prsr::context::init().value(); }

    // ---- The kit ----

    void change() { apply(by.any_of(50)); }
    void check() { require(admin::check_registry().keys > 0, "an empty registry"); }
    void diagnose() { require(!admin::diagnose_registry().empty(), "no diagnosis"); }
    void backup() {
        admin::change_options forced;
        std::string saved = admin::backup_registry(false).content;
        require(admin::is_backup(saved) && admin::keys_in(saved) > 0, "an empty backup");
        admin::held_lock one_at_a_time = admin::registry::open().lock("LKRT.soak", false, 20000);
        (void)admin::restore_registry(saved, true, forced);
    }
    void copy() { (void)admin::copy_registry(by.other_, true, {}, nullptr); }
    void follow() {
        admin::registry one = admin::registry::open();
        (void)one.changes_since("DATABASE", one.revision(), 3);
    }
    void read_history() {
        admin::registry::open().history(0, [](admin::past_change &&) { return true; });
    }
    void locks() {
        admin::registry one = admin::registry::open();
        {
            admin::held_lock held = one.lock("LKRT.soak." + db(), flag(), 20000);
            require(held.still_held(), "a lock was lost");
            (void)one.lock_users({"LKRT.soak"});
        }
        admin::held_lock all = one.lock_all(
            {3, [](size_t n) { return numbered("LKRT.n", static_cast<int>(n)); }}, 20000);
        require(all.still_held(), "the locks were lost");
    }
    void trace() {
        const std::string sink = "file:" + by.scratch_ + numbered("/trace", by.any_of(10));
        require(keyview_host_set_trace(sink.c_str()) == 0, "a trace");
        require(keyview_host_set_trace(nullptr) == 0, "no trace");
    }
    void unusable() {
        refused(keyview_host_set_trace("file:/none/none"), KEYVIEW_FAILURE_NOT_FOUND, "a trace");
        keyview_registry *none = nullptr;
        const std::string url = "lmdb:" + by.scratch_ + "/none";
        refused(keyview_registry_open(url.c_str(), 0, &none), KEYVIEW_FAILURE_NOT_FOUND,
                "a missing registry");
    }
};

static constexpr struct {
    const char *name;
    void (soak_steps::*run)();
} STEPS[] = {
    {"records", &soak_steps::records},
    {"lists", &soak_steps::lists},
    {"facts", &soak_steps::facts},
    {"names", &soak_steps::names},
    {"flags", &soak_steps::flags},
    {"cascade", &soak_steps::cascade},
    {"role", &soak_steps::role},
    {"failures", &soak_steps::failures},
    {"refused lock", &soak_steps::refused_lock},
    {"lent locks", &soak_steps::lent_locks},
    {"renew", &soak_steps::renew},
    {"change", &soak_steps::change},
    {"check", &soak_steps::check},
    {"diagnose", &soak_steps::diagnose},
    {"backup", &soak_steps::backup},
    {"copy", &soak_steps::copy},
    {"follow", &soak_steps::follow},
    {"history", &soak_steps::read_history},
    {"locks", &soak_steps::locks},
    {"trace", &soak_steps::trace},
    {"unusable", &soak_steps::unusable},
};

soak_worker::soak_worker(unsigned seed, std::string scratch, std::string other)
    : random_(seed), scratch_(std::move(scratch)), other_(std::move(other)) {}

void soak_worker::work(int steps) {
    soak_steps mine{*this, prsr::context::init().value()};
    for (; steps > 0; --steps) {
        const auto &next = STEPS[random_() % std::size(STEPS)];
        stopwatch watch;
        try {
            (mine.*next.run)();
        } catch (const std::exception &error) {
            throw std::runtime_error(std::string(next.name) + ": " + error.what());
        }
        require(watch.ms() < LONGEST_STEP_MS, std::string(next.name) + " hung");
    }
}

}  // namespace keyview::test
