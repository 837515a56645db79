// Processes of the benchmarks.
#include "bench/child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "bench/failure.h"
#include "bench/measure.h"

namespace keyview::bench {

[[noreturn]] static void run_child(const std::function<void()> &body) {
    try {
        body();
    } catch (const std::exception &error) {
        (void)std::fprintf(stderr, "keyview_bench, child: %s\n", error.what());
        _exit(1);
    }
    _exit(0);
}

child::child(const std::function<void()> &body) : pid_(fork()) {
    require_call(pid_ >= 0, "fork");
    if (pid_ == 0) run_child(body);
}

void child::signal(int number) const {
    require_call(kill(pid_, number) == 0, "kill");
}

void child::kill_and_wait() {
    if (pid_ <= 0) return;
    (void)kill(pid_, SIGKILL);  // one that ended by itself is still there to be waited for
    (void)waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void *shared_memory(size_t size) {
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require_call(memory != MAP_FAILED, "mmap");
    return memory;
}

void free_shared_memory(void *memory, size_t size) {
    (void)munmap(memory, size);
}

void sleep_us(double us) {
    std::this_thread::sleep_for(std::chrono::duration<double, std::micro>(us));
}

void wait_until(const std::function<bool()> &holds) {
    const double start = now_us();
    while (!holds()) {
        require(now_us() - start < 30e6, "another process is stuck");
        sleep_us(200);
    }
}

void run_program(const std::vector<std::string> &words) {
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t to_nowhere;
    posix_spawn_file_actions_init(&to_nowhere);
    posix_spawn_file_actions_addopen(&to_nowhere, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int rc =
        posix_spawnp(&pid, arguments[0], &to_nowhere, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&to_nowhere);
    int status = 0;
    const bool ended = rc == 0 && waitpid(pid, &status, 0) == pid;
    require(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0,
            ("the program " + words[0] + " failed").c_str());
}

}  // namespace keyview::bench
