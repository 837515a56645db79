// Another process of the same program, which reports in lines that outlive it. It is made by exec,
// for a process that was only forked could not use the connections to a cluster.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace keyview::test {

// What the process itself writes. A line ends with '\n' and has none inside.
class report_file {
  public:
    explicit report_file(const std::string &path)
        : fd_(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600)) {}
    report_file(const report_file &) = delete;
    report_file &operator=(const report_file &) = delete;
    ~report_file() { close(fd_); }

    void line(const std::string &text) const {
        std::string whole = text + '\n';
        auto size = static_cast<ssize_t>(whole.size());
        if (write(fd_, whole.data(), whole.size()) != size) {
            throw std::runtime_error("a report cannot be written");
        }
    }

  private:
    int fd_;
};

// For the process that was made.
inline void die_with_parent() {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == 1) _exit(1);
}

inline sigset_t only_termination() {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, SIGTERM);
    return one;
}

// The same, once it can be asked to end: until then the request waits.
inline void take_requests(void (*asked_to_end)(int)) {
    (void)signal(SIGTERM, asked_to_end);
    sigset_t one = only_termination();
    sigprocmask(SIG_UNBLOCK, &one, nullptr);
}

class own_process {
  public:
    // The arguments of its main; report is the path of a file that is not there yet. It dies with
    // the thread that made it.
    own_process(std::vector<std::string> arguments, const std::string &report)
        : report_(open(report.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)) {
        std::string self = "/proc/self/exe";
        std::vector<char *> words = {self.data()};
        for (std::string &one : arguments)
            words.push_back(one.data());
        words.push_back(nullptr);
        posix_spawnattr_t how;
        posix_spawnattr_init(&how);
        sigset_t held = only_termination();
        posix_spawnattr_setsigmask(&how, &held);
        posix_spawnattr_setflags(&how, POSIX_SPAWN_SETSIGMASK);
        int failed = posix_spawn(&pid_, self.c_str(), nullptr, &how, words.data(), environ);
        posix_spawnattr_destroy(&how);
        if (failed != 0) throw std::runtime_error("a process cannot be made");
    }
    own_process(const own_process &) = delete;
    own_process &operator=(const own_process &) = delete;
    ~own_process() {
        kill_it();
        close(report_);
    }

    void send(int signal_number) const {
        if (pid_ > 0) kill(pid_, signal_number);
    }

    void kill_it() {
        send(SIGKILL);
        (void)status();
    }

    // Whether it ends in that time.
    bool ends_within(int64_t wait_ms) const {
        for (;; --wait_ms) {
            siginfo_t end = {};
            (void)waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOHANG | WNOWAIT);
            if (end.si_pid == pid_ || wait_ms <= 0) return end.si_pid == pid_;
            usleep(1000);
        }
    }

    // Waits for its end: the exit status, or the signal that ended it, negative.
    int status() {
        int result = 0;
        if (pid_ > 0 && waitpid(std::exchange(pid_, -1), &result, 0) > 0)
            ended_with_ = WIFEXITED(result) ? WEXITSTATUS(result) : -WTERMSIG(result);
        return ended_with_;
    }

    // Lines that it has written since the last call.
    std::vector<std::string> news() {
        char some[65536];
        for (ssize_t got = 1; got > 0;) {
            got = read(report_, some, sizeof(some));
            if (got > 0) begun_.append(some, static_cast<size_t>(got));
        }
        std::vector<std::string> lines;
        size_t at = 0;
        for (size_t end; (end = begun_.find('\n', at)) != begun_.npos; at = end + 1)
            lines.push_back(begun_.substr(at, end - at));
        begun_.erase(0, at);
        return lines;
    }

  private:
    int report_;
    pid_t pid_ = -1;
    int ended_with_ = -1;
    std::string begun_;  // a line that has not ended
};

}  // namespace keyview::test
