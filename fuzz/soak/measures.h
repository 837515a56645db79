// What a process holds on to, and what it left behind in its registries: numbers that must be the
// same before and after any amount of work.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace keyview::test {

// The registries that the work is done in.
struct places {
    std::string directory;  // of the embedded registry
    std::string embedded;   // its URL
    std::string cluster;
    std::vector<std::string> members;  // "host:port"
};

struct measure {
    const char *name;
    int64_t allowed;  // how much it may grow
    int64_t (*read)(const places &where);
};

constexpr size_t MEASURE_COUNT = 13;
extern const measure MEASURES[MEASURE_COUNT];

std::vector<int64_t> measured(const places &where);

}  // namespace keyview::test
