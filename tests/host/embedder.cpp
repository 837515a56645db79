// embedder URL: a program that replaces the operators of memory, prints what it does wherever its
// output goes, and uses its context once more after the end. 0 if all is as it must be.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <new>

#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

// A block that one of them did not give is no block for the other.
constexpr size_t HEAD = 16;

void *operator new(size_t size) {
    auto *block = static_cast<char *>(malloc(size + HEAD));
    return block != nullptr ? block + HEAD : throw std::bad_alloc();
}
void operator delete(void *block) noexcept {
    if (block != nullptr) free(static_cast<char *>(block) - HEAD);
}
void operator delete(void *block, size_t) noexcept {
    operator delete(block);
}

int main(int argc, char **argv) {
    char status[256] = {};
    prsr_ctx *ctx = nullptr;
    prsr_cfg *cfg = nullptr;
    if (argc != 2 || keyview_host_set_registry(argv[1]) != 0) return 2;
    if (prsr_init(status, &ctx) != PRSR_SUCCESS) return 3;
    for (FILE *out : {stdout, stderr}) {
        (void)fputs("sales is shown\n", out);
        (void)fflush(out);
    }
    if (prsr_fetch_db_config(status, ctx, "sales", &cfg) != PRSR_SUCCESS) return 4;
    if (prsr_release_db_config(status, ctx, cfg) != PRSR_SUCCESS) return 5;
    if (prsr_terminate(status, ctx) != PRSR_SUCCESS) return 6;
#ifndef KEYVIEW_SANITIZED  // it reads a block that was given back
    if (prsr_terminate(status, ctx) != PRSR_ERR_CONTEXT) return 7;
#endif
    return 0;
}
