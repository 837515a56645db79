// Registries in a cluster.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "../host/store_test.h"
#include "host/cluster/session.h"
#include "members.h"

namespace keyview::test {

// One for all tests that harm no member.
static etcd_members &shared_members() {
    static etcd_members three;
    return three;
}

static std::string fresh_url() {
    static int prefixes = 0;
    return shared_members().url("/test" + std::to_string(++prefixes));
}

struct cluster_registry : fresh_registry {
    cluster_registry() { opened = open_backend(fresh_url(), open_mode::create); }
    ~cluster_registry() override { opened = {}; }
};

std::vector<backend_row> backends_under_test() {
    return {{"cluster", []() -> std::unique_ptr<fresh_registry> {
                 return std::make_unique<cluster_registry>();
             }}};
}

}  // namespace keyview::test
