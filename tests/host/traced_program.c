/* A C99 program that the environment, or its argument, tells where to trace. */
#include "host/if/keyview_host.h"
#include "platform/trcd.h"

int main(int argc, char **argv) {
    if (argc > 1 && keyview_host_set_trace(argv[1]) != 0) return 1;
    void *trc = trcdcompreg("A program", "PROG", 1024, 0, 0, 0, 0);
    trcdprintf(trc, TRCD_PROGRESS, "progress");
    return trc == (void *)0 ? 2 : 0;
}
