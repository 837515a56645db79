// A benchmark that cannot go on ends the whole run: no figure is worth anything then.
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace keyview::bench {

inline void require(bool good, const char *what) {
    if (!good) throw std::runtime_error(what);
}

inline void require_call(bool good, const char *call) {
    if (!good) throw std::runtime_error(std::string(call) + ": " + std::strerror(errno));
}

}  // namespace keyview::bench
