// fetch_once URL DATABASE [N]: a program that only fetches a record, and with N that many times.
// Under callgrind the last fetch alone is counted. For more than two it prints the microseconds of the
// first one with its release, and their median for the others.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <valgrind/callgrind.h>

#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

enum { MOST = 1000 };

static double now_us() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

static int smaller_first(const void *a, const void *b) {
    const double difference = *static_cast<const double *>(a) - *static_cast<const double *>(b);
    return difference < 0 ? -1 : difference > 0 ? 1 : 0;
}

int main(int argc, char **argv) {
    static double took_us[MOST];
    const int fetches = argc > 3 ? atoi(argv[3]) : 1;
    if (argc < 3 || fetches > MOST || keyview_host_set_registry(argv[1]) != 0) return 2;
    char status[256] = {};
    prsr_ctx *ctx = nullptr;
    int32_t rc = prsr_init(status, &ctx);
    if (rc != PRSR_SUCCESS) return rc;
    for (int i = 0; i < fetches && rc == PRSR_SUCCESS; ++i) {
        prsr_cfg *cfg = nullptr;
        const double start = now_us();
        CALLGRIND_ZERO_STATS;
        rc = prsr_fetch_db_config(status, ctx, argv[2], &cfg);
        if (rc == PRSR_SUCCESS) (void)prsr_release_db_config(status, ctx, cfg);
        took_us[i] = now_us() - start;
    }
    if (fetches > 2) {
        qsort(took_us + 1, static_cast<size_t>(fetches - 1), sizeof *took_us, smaller_first);
        printf("%f %f\n", took_us[0], took_us[fetches / 2]);
    }
    (void)prsr_terminate(status, ctx);
    return rc;
}
