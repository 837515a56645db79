// A child process of a test: it runs a body, meets its parent at agreed points, and may be killed.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace keyview::test {

constexpr int DEADLINE_MS = 30000;

// One end of a meeting: each side tells and waits.
struct meeting {
    bool tell() const { return write(fd, "x", 1) == 1; }
    bool wait() const {
        pollfd ready = {fd, POLLIN, 0};
        char byte = 0;
        return poll(&ready, 1, DEADLINE_MS) == 1 && read(fd, &byte, 1) == 1;
    }

    int fd;
};

class child_process {
  public:
    // The body gives the exit status; what it throws gives 99.
    template <typename work>
    explicit child_process(work &&body) {
        int ends[2] = {-1, -1};
        (void)socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends);
        pid = fork();
        if (pid == 0) _exit(run(body, {ends[1]}));
        close(ends[1]);
        here = {ends[0]};
    }

    ~child_process() {
        kill_it();
        close(here.fd);
    }

    void kill_it() {
        if (pid > 0) kill(pid, SIGKILL);
        (void)status();
    }

    // The exit status; -1 if a signal ended it or it does not end. With it ends its side of the meeting,
    // unless a process that it made has that, too.
    int status() {
        using namespace std::chrono;
        const auto deadline = steady_clock::now() + milliseconds(DEADLINE_MS);
        int result = 0;
        while (pid > 0 && steady_clock::now() < deadline) {
            pollfd side = {here.fd, 0, 0};
            if (poll(&side, 1, 20) == 1) usleep(100);
            if (waitpid(pid, &result, WNOHANG) != pid) continue;
            pid = -1;
            return WIFEXITED(result) ? WEXITSTATUS(result) : -1;
        }
        return -1;
    }

    pid_t pid;
    meeting here{};

  private:
    template <typename work>
    static int run(work &&body, const meeting &there) {
        try {
            return body(there);
        } catch (const std::exception &error) {
            (void)fprintf(stderr, "child: %s\n", error.what());
            return 99;
        }
    }
};

// Runs the body in n threads at once, each with its number, until all have ended. Throws what one of
// them threw.
template <typename work>
void in_threads(int n, work &&body) {
    std::vector<std::thread> threads;
    std::mutex mutex;
    std::exception_ptr thrown;
    for (int i = 0; i < n; ++i) {
        threads.emplace_back([&, i] {
            try {
                body(i);
            } catch (...) {
                const std::lock_guard guard(mutex);
                thrown = std::current_exception();
            }
        });
    }
    for (std::thread &one : threads)
        one.join();
    if (thrown) std::rethrow_exception(thrown);
}

}  // namespace keyview::test
