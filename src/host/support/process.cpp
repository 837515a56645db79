// Names of processes for people.
#include "host/support/process.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "host/support/fd.h"
#include "model/locks.h"

namespace keyview::host {

std::string host_name() {
    char host[256] = "";
    (void)gethostname(host, sizeof(host) - 1);
    return host;
}

std::string process_text(const std::string &program, pid_t pid) {
    return program + ", process " + std::to_string(pid) + " on " + host_name();
}

std::string this_process() {
    return process_text(program_invocation_short_name, getpid());
}

// By read alone: the streams of C++ would double the library.
std::string proc_text(const std::string &path) {
    const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text;
    char part[4096];
    for (ssize_t got = 0; (got = read(file.get(), part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(got));
    return text;
}

// When a process started; -1 if there is none. Its name, in brackets, may hold any byte.
static int64_t start_of(const std::string &folder) {
    constexpr int WORDS_BEFORE = 19;  // behind the name
    const std::string text = proc_text(folder + "stat");
    size_t at = text.rfind(')');
    for (int n = 0; n <= WORDS_BEFORE && at != text.npos; ++n)
        at = text.find(' ', at + 1);
    if (at == text.npos) return -1;
    const int64_t ticks = strtoll(text.c_str() + at, nullptr, 10);
    timespec now = {}, running = {};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    (void)clock_gettime(CLOCK_BOOTTIME, &running);
    return now.tv_sec - running.tv_sec + ticks / sysconf(_SC_CLK_TCK);
}

std::string process_since(pid_t pid, int64_t since_s) {
    constexpr int64_t ROUNDED_S = 2;
    const std::string folder = "/proc/" + std::to_string(pid) + "/";
    int64_t start = start_of(folder);
    if (start < 0 || start - ROUNDED_S > since_s) return "";
    std::string program = proc_text(folder + "comm");
    program.resize(std::min(program.find('\n'), program.size()));
    return process_text(program, pid) + (since_s == NO_TIME ? "" : since_text(since_s));
}

std::string since_text(int64_t since_s) {
    char text[64];
    tm utc = {};
    auto seconds = static_cast<time_t>(since_s);
    size_t size = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&seconds, &utc));
    return std::string(SINCE) + std::string(text, size);
}

}  // namespace keyview::host
