// fetch_once URL DATABASE [N]: a program that only fetches a record, and with N that many times.
// Under callgrind the last fetch alone is counted. For more than two it prints the microseconds of the
// first one with its release, and their median for the others.
#include <stdlib.h>
#include <valgrind/callgrind.h>

#include "bench/first_and_rest.h"
#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

int main(int argc, char **argv) {
    static keyview::bench::first_and_rest times;
    const int fetches = argc > 3 ? atoi(argv[3]) : 1;
    if (argc < 3 || fetches > times.MOST || keyview_host_set_registry(argv[1]) != 0) return 2;
    char status[256] = {};
    prsr_ctx *ctx = nullptr;
    int32_t rc = prsr_init(status, &ctx);
    if (rc != PRSR_SUCCESS) return rc;
    for (int i = 0; i < fetches && rc == PRSR_SUCCESS; ++i) {
        prsr_cfg *cfg = nullptr;
        times.start();
        CALLGRIND_ZERO_STATS;
        rc = prsr_fetch_db_config(status, ctx, argv[2], &cfg);
        if (rc == PRSR_SUCCESS) (void)prsr_release_db_config(status, ctx, cfg);
        times.end();
    }
    if (fetches > 2) times.print();
    (void)prsr_terminate(status, ctx);
    return rc;
}
