// The registries that a test program runs the tests of all stores over.
#pragma once

#include <memory>
#include <vector>

#include "registry.h"

namespace keyview::test {

// An empty registry that lives as long as the object.
struct fresh_registry {
    virtual ~fresh_registry() = default;
    backend opened;
};

struct backend_row {
    const char *name;
    std::unique_ptr<fresh_registry> (*make)();
};

std::vector<backend_row> backends_under_test();

}  // namespace keyview::test
