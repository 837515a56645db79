// What the server counts and measures, in the format of OpenMetrics.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

#include "ctl/overview.h"

namespace keyview::ctl {

class metrics {
  public:
    static constexpr const char *CONTENT_TYPE =
        "application/openmetrics-text; version=1.0.0; charset=utf-8";

    void observe(const std::string &call, double seconds);
    void count_answer(unsigned status);
    void note_read(const overview &cluster);
    void note_registry(bool healthy);

    std::string text(size_t connections, size_t followers) const;

  private:
    static constexpr double BOUNDS[] = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                        0.1,    0.25,  0.5,    1,     2.5,  5,     10};
    struct histogram {
        std::array<uint64_t, std::size(BOUNDS) + 1> counts = {};  // the last one: above all bounds
        double sum = 0;
    };

    mutable std::mutex mutex_;
    std::map<std::string, histogram> calls_;
    std::map<unsigned, uint64_t> answers_;
    std::map<std::string, uint64_t> findings_;                      // by severity
    std::map<std::string, std::map<std::string, int64_t>> states_;  // by kind of record and state
    uint64_t revision_ = 0, reads_ = 0;
    bool healthy_ = false;
    const time_t begun_ = time(nullptr);
};

}  // namespace keyview::ctl
