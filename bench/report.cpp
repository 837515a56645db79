// Collects rows and prints them as a table in Markdown.
#include "bench/report.h"

#include <algorithm>
#include <cstdio>
#include <iomanip>
#include <sstream>

#include "bench/failure.h"

namespace keyview::bench {

static constexpr double TOLERANCE = 1.1;

static std::string formatted(const char *format, double value) {
    char text[64];
    (void)std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string shown_time(double us) {
    if (us < 1) return formatted("%.0f ns", us * 1000);
    if (us < 100) return formatted("%.2f us", us);
    if (us < 1000) return formatted("%.0f us", us);
    return formatted("%.2f ms", us / 1000);
}

// Three digits that count.
static std::string shown_value(double value) {
    if (value >= 100) return formatted("%.0f", value);
    return formatted(value >= 10 ? "%.1f" : value >= 1 ? "%.2f" : "%.3f", value);
}

bool report::wants(std::initializer_list<const char *> names) const {
    if (selection_.empty()) return true;
    return std::any_of(names.begin(), names.end(), [this](const std::string &name) {
        return std::any_of(selection_.begin(), selection_.end(),
                           [&](const std::string &text) { return name.find(text) != name.npos; });
    });
}

void report::ratio(const char *name, const series &ours, const series &theirs, double goal) {
    figure(name, shown_time(median(ours)), shown_time(median(theirs)), median_ratio(ours, theirs),
           goal);
}

void report::figure(const char *name, const std::string &ours, const std::string &theirs,
                    double value, double goal) {
    if (!wants({name})) return;
    rows_.push_back({name, ours, theirs, value, goal});
    (void)std::fprintf(stderr, "%s: %s\n", name, shown_value(value).c_str());
}

const char *report::verdict(const row &one) {
    if (one.goal == NO_GOAL) return "reported";
    if (one.value <= one.goal) return "met";
    return one.value <= one.goal * TOLERANCE ? "within a tenth" : "**missed**";
}

void report::print() const {
    (void)std::puts("| Row | keyview | Beside it | Result | Goal | |");
    (void)std::puts("|---|---|---|---|---|---|");
    for (const row &one : rows_) {
        const std::string goal = one.goal == NO_GOAL ? "" : formatted("%g", one.goal);
        (void)std::printf("| %s | %s | %s | %s | %s | %s |\n", one.name.c_str(), one.ours.c_str(),
                          one.theirs.c_str(), shown_value(one.value).c_str(), goal.c_str(),
                          verdict(one));
    }
}

std::string report::written() const {
    std::ostringstream text;
    text << std::setprecision(17);
    for (const row &one : rows_)
        text << one.name << '\t' << one.ours << '\t' << one.theirs << '\t' << one.value << '\t'
             << one.goal << '\n';
    return text.str();
}

void report::read(const std::string &text) {
    std::vector<row> rows;
    std::istringstream lines(text);
    while (lines.peek() != EOF) {
        row one;
        std::string value, goal;
        for (std::string *field : {&one.name, &one.ours, &one.theirs, &value})
            std::getline(lines, *field, '\t');
        std::getline(lines, goal);
        require(!lines.eof() && !lines.fail(), "the rows of a group are incomplete");
        one.value = std::stod(value);  // a quotient may be infinite
        one.goal = std::stod(goal);
        rows.push_back(one);
    }
    rows_ = rows;
}

int report::missed() const {
    return static_cast<int>(std::count_if(rows_.begin(), rows_.end(), [](const row &one) {
        return one.goal != NO_GOAL && one.value > one.goal * TOLERANCE;
    }));
}

}  // namespace keyview::bench
