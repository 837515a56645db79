// The contract between the library and its host, a row for each rule.
#pragma once

#include <vector>

namespace keyview::hosttest {

// How the process of a rule ends, and where it writes why.
enum verdict : int { KEPT = 0, BROKEN = 1, UNTESTABLE = 2 };
inline constexpr int REPORT_FD = 3;

struct rule {
    const char *name;
    const char *sentence;
    void (*check)();
};

std::vector<rule> memory_rules();
std::vector<rule> text_rules();
std::vector<rule> registry_rules();
std::vector<rule> lock_rules();
std::vector<rule> library_rules();

}  // namespace keyview::hosttest
