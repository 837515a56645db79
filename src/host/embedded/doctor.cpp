// A look at the directory of a registry on this machine, its files and its locks.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "host/embedded/directory.h"
#include "host/embedded/embedded.h"
#include "host/support/error.h"

namespace keyview::host {

static constexpr uint64_t MIB = uint64_t{1} << 20;
static constexpr uint64_t LITTLE_SPACE = 64 * MIB;  // the file grows by as much as it has

static void look_at_space(const std::string &path, const diagnosis_sink &sink) {
    struct statvfs disk = {};
    if (statvfs(path.c_str(), &disk) != 0) return;
    uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
    bool little = free < LITTLE_SPACE;
    sink({"disk", little ? health::doubtful : health::good,
          std::to_string(free / MIB) + " MiB are free" +
              (little ? ": make room before the registry has to grow" : "")});
}

static void look_at_rights(const registry_directory &place, const diagnosis_sink &sink) {
    struct stat known = {};
    if (fstat(place.fd(), &known) != 0) return;
    bool open = (known.st_mode & S_IRWXO) != 0;
    sink({"directory", open ? health::doubtful : health::good,
          place.path() + (open ? " may be entered by everybody: chmod o= it" : " is there")});
}

void diagnose_embedded(const std::string &url, const diagnosis_sink &sink) {
    std::string path = url.substr(url.find(':') + 1);
    sink({"configuration", health::good, "on this machine, in " + path});
    diagnose("directory", sink, [&] {
        look_at_rights(registry_directory(path, open_mode::existing), sink);
        look_at_space(path, sink);
        diagnose("registry", sink, [&] {
            backend registry = EMBEDDED_KIND.open(url, open_mode::existing);
            uint64_t revision = registry.keys->now()->current().tree;
            sink({"registry", health::good, "can be read, revision " + std::to_string(revision)});
            diagnose_locks(registry.locks.get(), sink);
        });
    });
}

}  // namespace keyview::host
