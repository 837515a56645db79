// What readers misread in a sound registry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace keyview::admin {

// One thing that readers misread. It has a remedy where there is one way to mend it, else the
// decision that a person has to make.
struct finding {
    const char *rule;
    const char *severity;  // "error": readers fail or differ; "warning": something is out of sight
    std::string path;
    std::string readers_see;
    std::vector<std::string> remedy = {};  // the arguments of keyviewctl that mend it
    std::string decision = {};             // such as "which of PRIMARY, ... it is"
};
struct lint_result {
    std::vector<finding> findings;
    uint64_t keys = 0;  // that were inspected
};

// Inspects the registry in force.
lint_result lint_registry();

}  // namespace keyview::admin
