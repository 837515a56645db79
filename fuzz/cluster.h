// A small cluster for the runs that break processes, and contexts on its registry.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

namespace keyview::test {

constexpr int DATABASES = 4;
constexpr int SERVICES = 3;
constexpr int INSTANCES = 6;

inline std::string numbered(const char *name, int n) {
    return name + std::to_string(n);
}

inline void require(bool holds, const std::string &what) {
    if (!holds) throw std::runtime_error(what);
}

// What tells the versions of a database apart.
inline std::string domain_of(int version) {
    return numbered("v", version) + ".example.com";
}

size_t spfile_length_of(int version);
uint32_t env_count_of(int version);

// The document of a version. Without flags it leaves all flags and roles as they are.
std::string cluster_document(int version, bool with_flags = false);

void apply(int version, bool with_flags = false);

// Puts in a record that no lock of a database covers, with a list of that size.
void apply_filler(int number, size_t bytes);

// Exports the databases; returns the domain of each.
std::vector<std::string> exported_domains();

// How the exported databases differ from those of a version with its flags; "" if they do not.
std::string difference_from(int version);

class context {
  public:
    context() { expect(prsr_init(status, &ctx), "prsr_init"); }
    context(const context &) = delete;
    context &operator=(const context &) = delete;
    ~context() { (void)prsr_terminate(status, ctx); }

    static void expect(int32_t rc, const char *what) {
        if (rc == PRSR_SUCCESS) return;
        throw std::runtime_error(std::string(what) + " gave " + std::to_string(rc) + ": " +
                                 keyview_host_last_error());
    }

    char status[256] = {};
    prsr_ctx *ctx = nullptr;
};

// Measures what must not take long, however often others are in the way.
class stopwatch {
  public:
    int64_t ms() const { return us() / 1000; }
    int64_t us() const {
        auto taken = std::chrono::steady_clock::now() - start_;
        return std::chrono::duration_cast<std::chrono::microseconds>(taken).count();
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

}  // namespace keyview::test
