// keyview_bench: measures and prints the table. Arguments select the rows whose name holds one of
// them; without any, all are measured. Exit code 1 if a goal is missed by more than a tenth, 2 if
// something could not be measured. With --points it prints the points of the picture instead.
#include <cstdio>
#include <exception>

#include "bench/child.h"
#include "bench/registry.h"
#include "bench/rows.h"
#include "bench/scratch.h"
#include "bench/tool_scale.h"

using namespace keyview::bench;

// Each group has a process of its own: the memory that it uses is not scattered by what ran before, and
// its forked processes carry nothing of the others. A group that fails costs its own rows only, but the
// whole run its good end.
static bool measure_all(const bench_setup &setup) {
    bool good = true;
    for (const auto measure :
         {fetch_rows, change_rows, instruction_rows, list_rows, trace_rows, layer_rows, write_rows,
          lock_rows, shortcut_rows, handover_rows, process_rows, scale_rows}) {
        try {
            setup.to->read(text_from_child([&] {
                measure(setup);
                return setup.to->written();
            }));
        } catch (const std::exception &error) {
            (void)std::fprintf(stderr, "keyview_bench: %s\n", error.what());
            good = false;
        }
    }
    return good;
}

static int run(const std::vector<std::string> &selection) {
    const scratch_directory scratch;
    report table(selection);
    const std::string registry = scratch.path() + "/registry";
    const bench_setup setup = {&table, scratch.path(), registry,
                               make_record_registry(registry, {SMALL, TYPICAL, LARGE, BUSY})};
    const double start = now_us();
    const bool good = measure_all(setup);
    (void)std::printf("%s\n\n", machine_line(scratch.path()).c_str());
    table.print();
    (void)std::printf("\nMeasured in %.0f s; %d of the goals missed by more than a tenth.\n",
                      (now_us() - start) / 1e6, table.missed());
    if (!good) return 2;
    return table.missed() == 0 ? 0 : 1;
}

static int run_points() {
    const scratch_directory scratch;
    (void)std::printf("# %s\n", machine_line(scratch.path()).c_str());
    print_points("embedded", scratch.path(), embedded_urls(scratch.path()),
                 {1, 10, 100, 1000, 10000, 100000});
    return 0;
}

int main(int argc, char **argv) {
    try {
        if (argc == 2 && std::string(argv[1]) == "--points") return run_points();
        return run({argv + 1, argv + argc});
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "keyview_bench: %s\n", error.what());
        return 2;
    }
}
