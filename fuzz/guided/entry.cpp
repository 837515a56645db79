// What the fuzzer calls.
#include <cstddef>
#include <cstdint>

#include "target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    keyview::test::one_input({reinterpret_cast<const char *>(data), size});
    return 0;
}
