// A target of a fuzzer that is guided by coverage: each source beside this one is a program that
// gives bytes of any kind to one reader. Whatever it throws but that reader's own refusal ends the run.
#pragma once

#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace keyview::test {

void one_input(std::string_view input);

// A condition that does not hold ends the run.
inline void require(bool holds, const char *what) {
    if (!holds) throw std::runtime_error(what);
}

// A fault of the reader that shows itself where seldom is true, and in a run with a planted fault
// alone (packaging/fuzz --planted).
inline void planted_fault(bool seldom) {
    static const bool planted = getenv("KEYVIEW_PLANTED_FAULT") != nullptr;
    require(!planted || !seldom, "the planted fault");
}

}  // namespace keyview::test
