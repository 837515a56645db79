// Every operation of the library over a registry of any content, in memory: it ends, stays within its
// blocks and gives back all that it took.
#include "../../tests/keyview/operations.h"

#include <gtest/gtest.h>

#include "target.h"

void keyview::test::one_input(std::string_view input) {
    testing::GTEST_FLAG(throw_on_failure) = true;  // a broken contract ends the run
    test_host host{std::string(input)};
    for (const operation &one : OPERATIONS) {
        for (const auto &[name, value] : one.run(host).out)
            planted_fault(value.size() == 13);
    }
}
