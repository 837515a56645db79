// The groups of rows. Each measures what of it is asked for and adds that to the report.
#pragma once

#include <string>

#include "bench/report.h"

namespace keyview::bench {

struct bench_setup {
    report *to;
    std::string directory;           // for files
    std::string registry_directory;  // of the registry with the records
    std::string url;                 // of the same
};

void fetch_rows(const bench_setup &setup);
void change_rows(const bench_setup &setup);
void instruction_rows(const bench_setup &setup);
void list_rows(const bench_setup &setup);
void trace_rows(const bench_setup &setup);
void layer_rows(const bench_setup &setup);
void write_rows(const bench_setup &setup);
void lock_rows(const bench_setup &setup);
void shortcut_rows(const bench_setup &setup);
void handover_rows(const bench_setup &setup);
void process_rows(const bench_setup &setup);
void scale_rows(const bench_setup &setup);

}  // namespace keyview::bench
