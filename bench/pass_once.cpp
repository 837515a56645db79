// pass_once DIRECTORY DATABASE N: fetch_once with the engine used directly. It opens an environment that
// another process has made, and prints the microseconds of the first pass and the median of the others.
#include <cstdlib>

#include "bench/first_and_rest.h"
#include "bench/peer_lmdb.h"
#include "bench/record_builder.h"

int main(int argc, char **argv) {
    using namespace keyview::bench;
    static first_and_rest times;
    const int passes = argc == 4 ? atoi(argv[3]) : 0;
    if (passes < 2 || passes > times.MOST) return 2;
    lmdb_peer engine(argv[1]);
    const std::string prefix = row_prefix(argv[2]);
    bool found = true;
    for (int n = 0; n < passes; ++n) {
        times.start();
        prsr_cfg *cfg = engine.fetch(prefix);
        found = found && cfg->service_count != 0;
        free_record(cfg);
        times.end();
    }
    times.print();
    return found ? 0 : 1;
}
