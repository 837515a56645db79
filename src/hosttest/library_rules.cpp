// The library over the host: what a program sees in the end.
#include <string>
#include <thread>

#include "hosttest/host.h"
#include "hosttest/rules.h"

namespace keyview::hosttest {

namespace {

// A context with its status block.
struct context {
    context() {
        load_library();
        make();
    }
    void make() {
        int32_t rc = library.prsr_init(status, &ctx);
        require(rc == PRSR_SUCCESS, "prsr_init returns " + std::to_string(rc));
    }
    uint64_t status[28] = {};
    prsr_ctx *ctx = nullptr;
};

}  // namespace

static void require_code(const char *operation, int32_t rc, int32_t expected) {
    require(rc == expected, std::string(operation) + " returns " + std::to_string(rc));
}

static std::vector<std::string> databases(context *one) {
    char **names = nullptr;
    uint32_t count = 0;
    require_code("prsr_list_db", library.prsr_list_db(one->status, one->ctx, &names, &count), 0);
    std::vector<std::string> out(names, names + count);
    require_code("prsr_release_db_list",
                 library.prsr_release_db_list(one->status, one->ctx, names, count), 0);
    if (out.empty()) untestable("the registry of the host lists no database");
    return out;
}

static void contexts() {
    context one;
    for (int n = 0; n < 50; ++n) {
        require_code("prsr_terminate", library.prsr_terminate(one.status, one.ctx), 0);
        one.make();
    }
}

static void fetch(context *one, const std::string &name) {
    prsr_cfg *cfg = nullptr;
    require_code("prsr_fetch_db_config",
                 library.prsr_fetch_db_config(one->status, one->ctx, name.c_str(), &cfg), 0);
    require(cfg->sp_name == name, "the record of " + name + " has the name " + cfg->sp_name);
    require_code("prsr_release_db_config",
                 library.prsr_release_db_config(one->status, one->ctx, cfg), 0);
}

static void records() {
    context one;
    for (const std::string &name : databases(&one))
        fetch(&one, name);
    prsr_cfg *cfg = nullptr;
    int32_t rc = library.prsr_fetch_db_config(one.status, one.ctx, "keyview-hosttest", &cfg);
    require_code("prsr_fetch_db_config of a missing database", rc, PRSR_ERR_NO_DATABASE);
}

static void set_flag(context *one, const std::string &name, int32_t enabled) {
    require_code("prsr_set_db_enabled",
                 library.prsr_set_db_enabled(one->status, one->ctx, name.c_str(), enabled), 0);
}

static int32_t flag_of(context *one, const std::string &name) {
    int32_t enabled = -1;
    require_code("prsr_get_db_enabled",
                 library.prsr_get_db_enabled(one->status, one->ctx, name.c_str(), &enabled), 0);
    return enabled;
}

static void flags() {
    context writer;
    context reader;
    const std::string name = databases(&writer)[0];
    const int32_t before = flag_of(&writer, name);
    for (int32_t enabled : {1 - before, before}) {
        set_flag(&writer, name, enabled);
        require(flag_of(&reader, name) == enabled, "the flag is not what was set");
    }
}

// Each thread has a context. One writes, the others read whole records.
static void threads() {
    context main;
    const std::string name = databases(&main)[0];
    const int32_t before = flag_of(&main, name);
    std::thread readers[3];
    for (std::thread &reader : readers) {
        reader = std::thread([&] {
            context one;
            for (int round = 0; round < 10; ++round)
                fetch(&one, name);
        });
    }
    for (int round = 0; round < 10; ++round)
        set_flag(&main, name, round % 2);
    set_flag(&main, name, before);
    for (std::thread &one : readers)
        one.join();
}

std::vector<rule> library_rules() {
    return {
        {"context", "contexts of the library start and end", contexts},
        {"record", "the library lists the databases and fetches each, and finds no other", records},
        {"flag", "a flag that one context sets, another one reads", flags},
        {"threads", "threads with contexts of their own fetch and set at once", threads},
    };
}

}  // namespace keyview::hosttest
