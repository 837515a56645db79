// A target of a fuzzer that is guided by coverage: each source beside this one is a program that
// gives bytes of any kind to one reader. Whatever it throws but that reader's own refusal ends the run.
#pragma once

#include <string_view>

namespace keyview::test {

void one_input(std::string_view input);

}  // namespace keyview::test
