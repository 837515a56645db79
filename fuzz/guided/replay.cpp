// Gives the inputs of the corpus to one target, once, without the fuzzer: what each of them once showed
// is seen by every run of the tests.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "target.h"

// The fuzzer's, which a target's own changes of inputs call.
extern "C" size_t LLVMFuzzerMutate(uint8_t *, size_t size, size_t) {
    return size;
}

int main(int argc, char **argv) {
    if (argc != 2) return 2;
    size_t inputs = 0;
    for (const auto &file : std::filesystem::directory_iterator(argv[1])) {
        std::ostringstream bytes;
        bytes << std::ifstream(file.path(), std::ios::binary).rdbuf();
        (void)fprintf(stderr, "%s\n", file.path().filename().c_str());
        keyview::test::one_input(bytes.str());
        ++inputs;
    }
    (void)printf("%zu inputs\n", inputs);
    return inputs > 0 ? 0 : 1;
}
