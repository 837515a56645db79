// How long the first of several fetches of a process took, and the rest. For programs that link no C++
// runtime.
#pragma once

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

namespace keyview::bench {

class first_and_rest {
  public:
    enum { MOST = 1000 };

    void start() { start_us_ = now_us(); }
    void end() {
        if (count_ < MOST) took_us_[count_++] = now_us() - start_us_;
    }

    // Prints the microseconds of the first one and the median of the others; there must be some.
    void print() {
        qsort(took_us_ + 1, static_cast<size_t>(count_ - 1), sizeof *took_us_, smaller_first);
        printf("%f %f\n", took_us_[0], took_us_[count_ / 2]);
    }

  private:
    static double now_us() {
        timespec now = {};
        (void)clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
    }

    static int smaller_first(const void *a, const void *b) {
        const double difference = *static_cast<const double *>(a) - *static_cast<const double *>(b);
        return difference < 0 ? -1 : difference > 0 ? 1 : 0;
    }

    double took_us_[MOST] = {};
    double start_us_ = 0;
    int count_ = 0;
};

}  // namespace keyview::bench
