// Every operation of the library over a registry of any content, in memory: it ends, stays within its
// blocks and gives back all that it took.
#include "../../tests/keyview/operations.h"

#include <gtest/gtest.h>

#include "target.h"

// An input is a registry. Behind a "+" it is what replaces keys of the registry of the tests, with the
// short names of its keys, so that the operations get through to whatever differs.
void keyview::test::one_input(std::string_view input) {
    testing::GTEST_FLAG(throw_on_failure) = true;  // a broken contract ends the run
    const bool changes = !input.empty() && input[0] == '+';
    test_host host{changes ? CLUSTER + expanded(std::string(input.substr(1))) : std::string(input)};
    for (const operation &one : OPERATIONS) {
        if (one.name == std::string_view("prsr_terminate")) continue;  // by the end of the host
        for (const auto &[name, value] : one.run(host).out)
            planted_fault(value.size() == 13);
    }
}
