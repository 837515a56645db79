// Prints the roster of a service: its instances, their nodes and what each of them is for.
//
// Build:  c++ -std=c++17 example.cpp -lkeyview12 -lkeyview-host
// Run:    KEYVIEW_REGISTRY=lmdb:/var/lib/keyview ./a.out Sales reporting
#include <keyview/keyview_host.h>
#include <keyview/prsr.hpp>

#include <cstdio>
#include <string>

static int fail(const char *what, const std::error_code &error) {
    std::fprintf(stderr, "example: %s: %s: %s\n", what, error.message().c_str(),
                 keyview_host_last_error());
    return 1;
}

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s DATABASE SERVICE\n", argv[0]);
        return 2;
    }
    try {
        prsr::context cluster = prsr::context::init().value();
        const auto roster = cluster.get_srv_instances(argv[1], argv[2]);
        if (!roster) return fail("no roster", roster.error());
        for (const auto &[instance, node, available] : *roster) {
            std::printf("%s on %s, %s\n", std::string(instance).c_str(), std::string(node).c_str(),
                        available ? "takes over" : "preferred");
        }
    } catch (const std::system_error &error) {
        return fail("no context", error.code());
    }
    return 0;
}
