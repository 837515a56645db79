// process_cost HOME REGISTRY DESCRIPTORS PROGRAM WORD...: runs a program whose output goes nowhere, with
// nothing of the environment but the path, a home and a registry; prints what it took: microseconds
// that passed, microseconds of the processors, bytes of memory and descriptors, the most of each.
//
// DESCRIPTORS limits those that the program may have; with 0 they are not limited and not counted.
// It is a program of its own because a process inherits the peak of memory of the one that starts it.
#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "bench/measure.h"

static constexpr useconds_t SAMPLE_US = 200;

[[noreturn]] static void become(char **words, rlim_t descriptors) {
    const rlimit limit = {descriptors, descriptors};
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (descriptors > 0 && setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(126);
    if (dup2(nowhere, STDOUT_FILENO) < 0) _exit(126);
    execvp(words[0], words);
    _exit(127);
}

// A process that ends meanwhile has none.
static long descriptors_of(pid_t pid) {
    std::error_code gone;
    std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/fd", gone);
    long count = 0;
    for (; !gone && all != std::filesystem::directory_iterator(); all.increment(gone))
        ++count;
    return count;
}

static double us_of(const timeval &time) {
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

int main(int argc, char **argv) {
    if (argc < 5) return 2;
    const char *known_path = getenv("PATH");
    const std::string path = known_path != nullptr ? known_path : "/usr/bin:/bin";
    const auto descriptors = static_cast<rlim_t>(atoi(argv[3]));
    (void)clearenv();
    (void)setenv("PATH", path.c_str(), 1);
    (void)setenv("HOME", argv[1], 1);
    (void)setenv("KEYVIEW_REGISTRY", argv[2], 1);

    const double start = keyview::bench::now_us();
    const pid_t pid = fork();
    if (pid == 0) become(argv + 4, descriptors);
    long most = 0;
    int status = 0;
    rusage used = {};
    pid_t ended = 0;
    while (pid > 0 && ended == 0) {
        ended = wait4(pid, &status, descriptors > 0 ? WNOHANG : 0, &used);
        if (ended < 0 && errno == EINTR) ended = 0;
        if (ended != 0) break;
        most = std::max(most, descriptors_of(pid));
        usleep(SAMPLE_US);
    }
    const double passed = keyview::bench::now_us() - start;
    if (ended != pid || !WIFEXITED(status)) return 1;
    std::printf("%f %f %ld %ld\n", passed, us_of(used.ru_utime) + us_of(used.ru_stime),
                used.ru_maxrss * 1024, most);
    return WEXITSTATUS(status);
}
