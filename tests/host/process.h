// A child process of a test: it runs a body, meets its parent at agreed points, and may be killed.
#ifndef KEYVIEW_TESTS_HOST_PROCESS_H
#define KEYVIEW_TESTS_HOST_PROCESS_H

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <functional>

namespace keyview::test {

constexpr int DEADLINE_MS = 30000;

// Two ends of a meeting: each side tells and waits.
struct meeting {
    int in = -1;
    int out = -1;

    bool tell() const { return write(out, "x", 1) == 1; }
    bool wait() const {
        pollfd ready = {in, POLLIN, 0};
        char byte = 0;
        return poll(&ready, 1, DEADLINE_MS) == 1 && read(in, &byte, 1) == 1;
    }
};

class child_process {
  public:
    // body gives the exit status; what it throws gives 99.
    explicit child_process(const std::function<int(const meeting &)> &body) {
        int down[2];
        int up[2];
        if (pipe(down) != 0 || pipe(up) != 0) throw std::runtime_error("pipe");
        pid = fork();
        if (pid == 0) _exit(run(body, {down[0], up[1]}));
        close(down[0]);
        close(up[1]);
        here = {up[0], down[1]};
    }

    ~child_process() {
        kill_it();
        close(here.in);
        close(here.out);
    }

    void kill_it() {
        if (pid > 0) kill(pid, SIGKILL);
        (void)status();
    }

    // The exit status; -1 if a signal ended it or it does not end.
    int status() {
        int result = -1;
        for (int waited = 0; pid > 0; ++waited) {
            if (waitpid(pid, &result, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(result) ? WEXITSTATUS(result) : -1;
            }
            if (waited > DEADLINE_MS) return -1;
            usleep(1000);
        }
        return -1;
    }

    pid_t pid;
    meeting here;

  private:
    static int run(const std::function<int(const meeting &)> &body, const meeting &there) {
        try {
            return body(there);
        } catch (const std::exception &error) {
            fprintf(stderr, "child: %s\n", error.what());
            return 99;
        }
    }
};

}  // namespace keyview::test

#endif
