// Scratch files, and the machine.
#include "bench/scratch.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "bench/failure.h"

namespace keyview::bench {

std::string program_directory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

scratch_directory::scratch_directory() {
    const char *chosen = std::getenv("TMPDIR");
    path_ = (chosen != nullptr ? std::string(chosen) : program_directory()) + "/bench-XXXXXX";
    require_call(mkdtemp(path_.data()) != nullptr, "mkdtemp");
}

scratch_directory::~scratch_directory() {
    std::error_code ignored;  // nothing can be done about files that stay
    std::filesystem::remove_all(path_, ignored);
}

static std::string processor() {
    std::ifstream about("/proc/cpuinfo");
    for (std::string line; std::getline(about, line);) {
        if (line.compare(0, 10, "model name") == 0) return line.substr(line.find(": ") + 2);
    }
    return "unknown processor";
}

// By the device number, which a line of mountinfo has as its third field; the type follows a "-".
static std::string file_system(const std::string &directory) {
    struct stat about = {};
    require_call(stat(directory.c_str(), &about) == 0, "stat");
    const std::string device =
        std::to_string(major(about.st_dev)) + ':' + std::to_string(minor(about.st_dev));
    std::ifstream mounts("/proc/self/mountinfo");
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string field;
        fields >> field >> field >> field;
        if (field != device) continue;
        while (fields >> field && field != "-") {
        }
        fields >> field;
        return field == "tmpfs" ? "tmpfs, on which the durable rows mean nothing" : field;
    }
    return "unknown";
}

std::string machine_line(const std::string &directory) {
    utsname system = {};
    (void)uname(&system);  // fails for a bad address only
    return processor() + ", " + std::to_string(std::thread::hardware_concurrency()) +
           " processors, Linux " + system.release + "; file system: " + file_system(directory);
}

}  // namespace keyview::bench
