// Included before each source of a second build of the library: its trace calls are then nothing,
// and their arguments are not evaluated. What the trace costs while it is off is the difference.
#ifndef KEYVIEW_BENCH_NO_TRACE_H
#define KEYVIEW_BENCH_NO_TRACE_H

#include "platform/trcd.h"

#define trcdprintf(...) static_cast<void>(0)
#define trcdprintft(...) static_cast<void>(0)

#endif
