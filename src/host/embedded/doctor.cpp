// The inspection of a registry on this machine: its directory, its files and its locks.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "host/embedded/directory.h"
#include "host/embedded/embedded.h"
#include "host/support/error.h"

namespace keyview::host {

static constexpr uint64_t MIB = uint64_t{1} << 20;
static constexpr uint64_t LITTLE_SPACE = 64 * MIB;  // the file grows by as much as it has
// A check takes less than a second up to here, and writers wait for its end.
static constexpr uint64_t MOST_CHECKED = 64 * MIB;

static void inspect_space(const std::string &path, const diagnosis_sink &sink) {
    struct statvfs disk = {};
    if (statvfs(path.c_str(), &disk) != 0) return;
    uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
    bool little = free < LITTLE_SPACE;
    sink({"disk", little ? health::doubtful : health::good,
          std::to_string(free / MIB) + " MiB are free" +
              (little ? ": make room before the registry has to grow" : "")});
}

static void inspect_rights(const registry_directory &directory, const diagnosis_sink &sink) {
    struct stat known = {};
    if (fstat(directory.fd(), &known) != 0) return;
    bool open = (known.st_mode & S_IRWXO) != 0;
    sink({"directory", open ? health::doubtful : health::good,
          directory.path() + (open ? " is open to every user: chmod o= it" : " exists")});
    std::string excess = directory.excess_rights();
    if (!excess.empty()) sink({"files", health::doubtful, excess});
}

static void inspect_content(const std::string &url, uint64_t size, const diagnosis_sink &sink) {
    if (size > MOST_CHECKED) {
        return sink({"content", health::good,
                     "not inspected: the file has " + std::to_string(size / MIB) +
                         " MiB; \"keyviewctl check\" inspects it"});
    }
    size_t faults = 0;
    std::string first;
    auto count = [&](const std::string &subject, const std::string &reason) {
        if (faults++ == 0) first = subject + " " + reason;
    };
    uint64_t keys = EMBEDDED_KIND.check(url, count, [](auto, auto) {}).keys;
    if (faults == 0)
        return sink({"content", health::good, std::to_string(keys) + " keys are sound"});
    sink({"content", health::bad,
          first + (faults == 1 ? "" : ", and " + std::to_string(faults - 1) + " more") +
              "; \"keyviewctl lint\" lists the damage with its remedies"});
}

void diagnose_embedded(const std::string &url, const diagnosis_sink &sink) {
    std::string path = url.substr(url.find(':') + 1);
    sink({"configuration", health::good, "on this machine, in " + path});
    diagnose("directory", sink, [&] {
        registry_directory directory(path, open_mode::existing);
        file_status data;
        inspect_rights(directory, sink);
        inspect_space(path, sink);
        diagnose("registry", sink, [&] {
            backend registry = EMBEDDED_KIND.open(url, open_mode::existing);
            uint64_t revision = registry.keys->now()->current().tree;
            sink({"registry", health::good, "can be read, revision " + std::to_string(revision)});
            diagnose_locks(registry.locks.get(), sink);
        });
        if (read_status(directory.fd(), "data.mdb", &data))
            diagnose("content", sink, [&] { inspect_content(url, data.size, sink); });
    });
}

}  // namespace keyview::host
