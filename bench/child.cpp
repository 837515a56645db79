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
#include <sstream>
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

static bool ended_well(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void child::wait() {
    const bool good = ended_well(pid_);
    pid_ = -1;
    require(good, "a forked process failed");
}

static void make_pipe(int (&ends)[2]) {
    require_call(pipe2(ends, O_CLOEXEC) == 0, "pipe2");
}

static std::string read_all(int in) {
    std::string text;
    char part[4096];
    for (ssize_t n; (n = read(in, part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(n));
    close(in);
    return text;
}

static void write_all(int out, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t n = write(out, text.data() + done, text.size() - done);
        require_call(n > 0, "write");
        done += static_cast<size_t>(n);
    }
}

std::string text_from_child(const std::function<std::string()> &body) {
    int ends[2];
    make_pipe(ends);
    child writer([&] {
        close(ends[0]);
        write_all(ends[1], body());
    });
    close(ends[1]);
    std::string text = read_all(ends[0]);
    writer.wait();
    return text;
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

// Starts a program whose output goes to a descriptor, or nowhere; waits for its good end meanwhile.
static void run_into(const std::vector<std::string> &words, int out,
                     const std::function<void()> &meanwhile) {
    std::vector<char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (out >= 0) {
        posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    } else {
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    }
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    meanwhile();
    require(rc == 0 && ended_well(pid), ("the program " + words[0] + " failed").c_str());
}

void run_program(const std::vector<std::string> &words) {
    run_into(words, -1, [] {});
}

std::vector<double> figures_of(const std::vector<std::string> &words) {
    int ends[2];
    make_pipe(ends);
    std::string text;
    run_into(words, ends[1], [&] {
        close(ends[1]);
        text = read_all(ends[0]);
    });
    std::istringstream printed(text);
    std::vector<double> figures;
    for (double figure; printed >> figure;)
        figures.push_back(figure);
    return figures;
}

}  // namespace keyview::bench
