// Names of processes for people.
#include "host/support/process.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fstream>
#include <sstream>

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

// When a process started; -1 if there is none. Its name, in brackets, may hold any byte.
static int64_t start_of(const std::string &folder) {
    constexpr int WORDS_BEFORE = 19;  // behind the name
    std::ifstream file(folder + "stat");
    std::stringstream all;
    all << file.rdbuf();
    const std::string text = all.str();
    std::istringstream words(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string skipped;
    int64_t ticks = -1;
    for (int n = 0; n < WORDS_BEFORE; ++n)
        words >> skipped;
    if (!(words >> ticks)) return -1;
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
    std::string program;
    std::getline(std::ifstream(folder + "comm"), program);
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
