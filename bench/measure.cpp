// Rounds, batches and medians.
#include "bench/measure.h"

#include <algorithm>
#include <chrono>

namespace keyview::bench {

double now_us() {
    using namespace std::chrono;
    return duration<double, std::micro>(steady_clock::now().time_since_epoch()).count();
}

static double time_batch(const std::function<void()> &variant, int runs) {
    const double start = now_us();
    for (int i = 0; i < runs; ++i)
        variant();
    return (now_us() - start) / runs;
}

// How many runs fill a batch, from the faster of two tries after a first run that warms up.
static int runs_for(const std::function<void()> &variant, double batch_ms) {
    variant();
    const double first = time_batch(variant, 1);
    const double once = std::min(first, time_batch(variant, 1));
    return std::clamp(static_cast<int>(batch_ms * 1000 / once), 1, 1000000);
}

std::vector<series> interleave(const plan &how,
                               const std::vector<std::function<void()>> &variants) {
    std::vector<int> runs;
    for (const auto &variant : variants)
        runs.push_back(runs_for(variant, how.batch_ms));
    std::vector<series> figures(variants.size());
    for (int round = -1; round < how.rounds; ++round) {
        for (size_t i = 0; i < variants.size(); ++i) {
            const size_t at = (i + static_cast<size_t>(round + 1)) % variants.size();
            const double us = time_batch(variants[at], runs[at]);
            if (round >= 0) figures[at].push_back(us);
        }
    }
    return figures;
}

double median(series figures) {
    std::sort(figures.begin(), figures.end());
    const size_t half = figures.size() / 2;
    return figures.size() % 2 == 1 ? figures[half] : (figures[half - 1] + figures[half]) / 2;
}

double median_ratio(const series &of, const series &to) {
    series ratios;
    for (size_t i = 0; i < of.size(); ++i)
        ratios.push_back(of[i] / to[i]);
    return median(ratios);
}

}  // namespace keyview::bench
