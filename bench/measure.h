// The measuring loop. What is compared runs in turns, round by round, so that a slow moment of the
// machine falls on all alike; a ratio is the median of the ratios of the rounds.
#pragma once

#include <functional>
#include <vector>

namespace keyview::bench {

using series = std::vector<double>;  // microseconds a run, one figure a round

struct plan {
    int rounds;
    double batch_ms;  // how long one variant runs in a round, at least once
};

double now_us();

// Runs each variant in each round, rotating which one begins, and times it; a round before the
// first is not counted.
std::vector<series> interleave(const plan &how, const std::vector<std::function<void()>> &variants);

double median(series figures);

double median_ratio(const series &of, const series &to);

}  // namespace keyview::bench
