// The table of figures with their goals.
#pragma once

#include <initializer_list>
#include <string>
#include <vector>

#include "bench/measure.h"

namespace keyview::bench {

constexpr double NO_GOAL = 0;  // reported only

class report {
  public:
    // Keeps the rows whose name holds one of the texts; all of them if there is none.
    explicit report(std::vector<std::string> selection) : selection_(std::move(selection)) {}

    // Whether any of these rows is asked for.
    bool wants(std::initializer_list<const char *> names) const;

    // A ratio of two series. ours and theirs, the figures behind it, are for people.
    void ratio(const char *name, const series &ours, const series &theirs, double goal);

    // Any other figure, of which less is better.
    void figure(const char *name, const std::string &ours, const std::string &theirs, double value,
                double goal);

    void print() const;

    // All rows as a text, and the rows of such a text in place of its own: they may come from a forked
    // process. A text that is cut short is refused.
    std::string written() const;
    void read(const std::string &text);

    // How many goals are missed by more than a tenth.
    int missed() const;

  private:
    struct row {
        std::string name;
        std::string ours;
        std::string theirs;
        double value;
        double goal;
    };

    static const char *verdict(const row &one);

    std::vector<std::string> selection_;
    std::vector<row> rows_;
};

// A time in the unit that suits it.
std::string shown_time(double us);

}  // namespace keyview::bench
