// The trace operations: a level is tested before anything is formatted.
#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "host/support/fork.h"
#include "host/support/last_error.h"
#include "host/support/trace_sink.h"
#include "platform/trcd.h"

namespace keyview::host {

static constexpr size_t USUAL_LINE = 1024;
static constexpr size_t LONGEST_LINE = 65536;

// A component lives as long as the process; registering its name again gives the same one.
static const std::string *component_of(const char *name) {
    static auto &known = *new std::vector<std::unique_ptr<const std::string>>;
    std::lock_guard guard(fork_mutex());
    for (const auto &component : known) {
        if (*component == name) return component.get();
    }
    known.push_back(std::make_unique<const std::string>(name));
    return known.back().get();
}

// Tested before all else: a line that nobody wants is the usual one.
static bool below_threshold(int32_t level) {
    return level > trace_threshold.load(std::memory_order_relaxed);
}

static bool wanted(int32_t level) {
    // The first line of the process may come before any registration. Settings that cannot be used
    // leave the trace silent.
    (void)at_border([] {
        load_trace_settings();
        return 0;
    });
    return !below_threshold(level);
}

static void format_line(const void *trc, int32_t level, const char *format, va_list values) {
    if (!wanted(level)) return;
    static const std::string NO_COMPONENT = "-";
    const auto *component = trc == nullptr ? &NO_COMPONENT : static_cast<const std::string *>(trc);
    char usual[USUAL_LINE];
    va_list again;
    va_copy(again, values);
    int length = vsnprintf(usual, sizeof(usual), format, values);
    if (length >= 0 && static_cast<size_t>(length) < sizeof(usual)) {
        write_trace_line(*component, level, {usual, static_cast<size_t>(length)});
    } else if (length >= 0) {
        size_t size = std::min(static_cast<size_t>(length) + 1, LONGEST_LINE);
        auto *longer = static_cast<char *>(malloc(size));
        if (longer != nullptr) {
            (void)vsnprintf(longer, size, format, again);
            write_trace_line(*component, level, {longer, size - 1});
        }
        free(longer);
    }
    va_end(again);
}

}  // namespace keyview::host

using namespace keyview::host;

extern "C" {

// The four zeros and the limit select nothing: a line is as long as it needs to be, up to 64 KiB.
// Null if the trace settings of the environment cannot be used.
void *trcdcompreg(const char * /*description*/, const char *name, int32_t /*limit*/, uint64_t,
                  uint64_t, uint64_t, uint64_t) {
    const std::string *component = nullptr;
    (void)at_border([&] {  // the failure is kept for keyview_host_last_error
        load_trace_settings();
        component = component_of(name);
        return 0;
    });
    return const_cast<std::string *>(component);
}

// Both trcdprintf and trcdprintft.
__attribute__((visibility("hidden"), used)) void keyview_trace(void *trc, int32_t level,
                                                               const char *format, ...) {
    if (below_threshold(level)) return;
    va_list values;
    va_start(values, format);
    format_line(trc, level, format, values);
    va_end(values);
}

#ifdef __x86_64__
// A function with variable arguments first saves the registers that they may be in. For the usual line,
// which is dropped, that would be most of what it costs: so its level is tested before.
asm(R"(
    .text
    .balign 16
    .globl trcdprintf
    .globl trcdprintft
    .type trcdprintf, @function
    .type trcdprintft, @function
trcdprintf:
trcdprintft:
    movslq %esi, %r11
    cmpq %r11, keyview_trace_threshold(%rip)
    jge keyview_trace
    ret
    .size trcdprintf, . - trcdprintf
    .size trcdprintft, . - trcdprintft
)");
#else
void trcdprintf(void *, int32_t, const char *, ...) __attribute__((alias("keyview_trace")));
void trcdprintft(void *, int32_t, const char *, ...) __attribute__((alias("keyview_trace")));
#endif

}  // extern "C"
