// The destination and level of trace lines. Set by KEYVIEW_TRACE and KEYVIEW_TRACE_LEVEL, or by the
// program (keyview_host.h).
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

namespace keyview::host {

// Lines above this level are dropped. Before any setting, all lines pass. Assembly knows it by its name.
extern std::atomic<int64_t> trace_threshold asm("keyview_trace_threshold");

// Applies the settings of the environment, once. Throws failure::usage if they cannot be used:
// nothing is traced then.
void load_trace_settings();

// Writes one line, whatever its level. Never throws; errno stays as it was.
void write_trace_line(std::string_view component, int32_t level, std::string_view text) noexcept;

// The program's choices. A sink is named as in KEYVIEW_TRACE; setting the file in use again opens
// it anew. Throws failure::usage, and all stays as it was, if the sink cannot be used.
void set_trace_sink(std::string_view choice);
void set_trace_level(int32_t level);

}  // namespace keyview::host
