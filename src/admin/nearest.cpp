// See nearest.h.
#include "admin/nearest.h"

#include <algorithm>

#include "model/folding.h"

namespace keyview::admin {

// Letters to change, add, leave out or swap with the next one.
static size_t distance_between(const std::string &a, const std::string &b) {
    std::vector<std::vector<size_t>> rows(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                rows[i][j] = i + j;
                continue;
            }
            size_t other = a[i - 1] == b[j - 1] ? 0 : 1;
            rows[i][j] =
                std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, rows[i - 1][j - 1] + other});
            bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (swapped) rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
        }
    }
    return rows[a.size()][b.size()];
}

std::string nearest(const std::string &word, const std::vector<std::string> &candidates) {
    constexpr size_t LONGEST = 64;
    size_t least = std::max<size_t>(1, word.size() / 3) + 1;
    std::string best;
    for (const std::string &candidate : candidates) {
        if (word.size() > LONGEST || candidate.size() > LONGEST) continue;
        size_t distance = distance_between(element_of(word), element_of(candidate));
        if (distance < least) {
            least = distance;
            best = candidate;
        }
    }
    return best;
}

}  // namespace keyview::admin
