// What the trace costs while it is off: the library beside a build of it without its trace calls.
#include <dlfcn.h>

#include "bench/failure.h"
#include "bench/record_compare.h"
#include "bench/registry.h"
#include "bench/rows.h"
#include "bench/scratch.h"
#include "host/if/keyview_host.h"

namespace keyview::bench {

constexpr char TRACE[] = "fetch typical, trace off / trace calls compiled out";

namespace {

// One build of the library, called by its symbols. The outside operations are this program's. Each
// build resolves its own operations first, or the second one would call into the first.
struct loaded_library {
    loaded_library(const std::string &file, const std::string &url)
        : handle(dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND)) {
        require(handle != nullptr, dlerror());
        find("prsr_init", &init);
        find("prsr_terminate", &terminate);
        find("prsr_fetch_db_config", &fetch_config);
        find("prsr_release_db_config", &release_config);
        require(keyview_host_set_registry(url.c_str()) == 0, keyview_host_last_error());
        require(init(status, &ctx) == PRSR_SUCCESS, keyview_host_last_error());
    }
    loaded_library(const loaded_library &) = delete;
    loaded_library &operator=(const loaded_library &) = delete;
    ~loaded_library() {
        (void)terminate(status, ctx);
        dlclose(handle);
    }

    template <typename Function>
    void find(const char *name, Function **to) {
        *to = reinterpret_cast<Function *>(dlsym(handle, name));
        require(*to != nullptr, name);
    }

    prsr_cfg *get() {
        prsr_cfg *cfg = nullptr;
        require(fetch_config(status, ctx, TYPICAL.database, &cfg) == PRSR_SUCCESS,
                "the fetch failed");
        return cfg;
    }

    void fetch() { (void)release_config(status, ctx, get()); }

    void *handle;
    decltype(prsr_init) *init = nullptr;
    decltype(prsr_terminate) *terminate = nullptr;
    decltype(prsr_fetch_db_config) *fetch_config = nullptr;
    decltype(prsr_release_db_config) *release_config = nullptr;
    char status[256] = {};
    prsr_ctx *ctx = nullptr;
};

}  // namespace

void trace_rows(const bench_setup &setup) {
    if (!setup.to->wants({TRACE})) return;
    const std::string libraries = program_directory() + "/../lib/";
    loaded_library traced(libraries + "libkeyview12.so", setup.url);
    loaded_library silent(libraries + "libkeyview12-notrace.so", setup.url);
    require(traced.init != silent.init, "both builds are one");
    prsr_cfg *ours = traced.get();
    prsr_cfg *theirs = silent.get();
    require(same_record(*ours, *theirs), "another record without the trace");
    (void)traced.release_config(traced.status, traced.ctx, ours);
    (void)silent.release_config(silent.status, silent.ctx, theirs);

    const auto figures = interleave({301, 3}, {[&] { traced.fetch(); }, [&] { silent.fetch(); }});
    setup.to->ratio(TRACE, figures[0], figures[1], 1.02);
}

}  // namespace keyview::bench
