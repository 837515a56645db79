// "Did you mean": what a mistyped word may have been.
#pragma once

#include <string>
#include <vector>

namespace keyview::admin {

// The candidate that is least far from a word, whatever the case; "" if none is near.
std::string nearest(const std::string &word, const std::vector<std::string> &candidates);

}  // namespace keyview::admin
