// Prints the roster of a service: its instances, their nodes and what each of them is for.
//
// Build:  c++ -std=c++17 example.cpp -lkeyview12 -lkeyview-host
// Run:    KEYVIEW_REGISTRY=lmdb:/var/lib/keyview ./a.out Sales reporting
#include <keyview/keyview_host.h>
#include <keyview/prsr.h>

#include <cstdio>
#include <stdexcept>
#include <string>

static void check(int32_t rc, const std::string &what) {
    if (rc == PRSR_SUCCESS) return;
    throw std::runtime_error(what + ": code " + std::to_string(rc) + ": " +
                             keyview_host_last_error());
}

// A context, for as long as the scope lasts. One thread at a time uses it.
class context {
  public:
    context() { check(prsr_init(status, &ctx), "no context"); }
    ~context() { (void)prsr_terminate(status, ctx); }
    context(const context &) = delete;
    context &operator=(const context &) = delete;

    uint64_t status[28] = {};  // 224 bytes, what the lock service expects
    prsr_ctx *ctx = nullptr;
};

// The roster of a service. Its context outlives it.
class roster {
  public:
    roster(context &owner, const char *database, const char *service) : owner_(owner) {
        check(prsr_get_srv_instances(owner.status, owner.ctx, database, service, &instances, &nodes,
                                     &available, &count),
              "no roster of " + std::string(service));
    }
    ~roster() {
        (void)prsr_release_srv_instances(owner_.status, owner_.ctx, instances, nodes, available,
                                         count);
    }
    roster(const roster &) = delete;
    roster &operator=(const roster &) = delete;

    char **instances = nullptr, **nodes = nullptr;
    int32_t *available = nullptr;
    uint32_t count = 0;

  private:
    context &owner_;
};

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DATABASE SERVICE\n", argv[0]);
        return 2;
    }
    try {
        context cluster;
        const roster found(cluster, argv[1], argv[2]);
        for (uint32_t n = 0; n < found.count; ++n) {
            std::printf("%s on %s, %s\n", found.instances[n], found.nodes[n],
                        found.available[n] != 0 ? "takes over" : "preferred");
        }
    } catch (const std::exception &error) {
        std::fprintf(stderr, "example: %s\n", error.what());
        return 1;
    }
    return 0;
}
