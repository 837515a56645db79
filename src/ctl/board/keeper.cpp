// See keeper.h.
#include "ctl/board/keeper.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "ctl/board/screen.h"
#include "ctl/output.h"

namespace keyview::ctl {

static constexpr int ENDING[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};
static constexpr time_t PATIENCE_S = 2;  // with a child that is to end

sigset_t board_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (int number : ENDING)
        sigaddset(&set, number);
    for (int number : {SIGTSTP, SIGCONT, SIGWINCH})
        sigaddset(&set, number);
    return set;
}

void end_by_signal(int number) {
    (void)signal(number, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    (void)raise(number);
    (void)sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

terminal_keeper::terminal_keeper() {
    void *memory =
        mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED || tcgetattr(STDIN_FILENO, &before_) != 0) {
        throw tool_error{EXIT_INTERNAL, "the board cannot be shown", "", strerror(errno), ""};
    }
    screen_shown_ = static_cast<bool *>(memory);
}

terminal_keeper::~terminal_keeper() {
    (void)munmap(screen_shown_, sizeof(bool));
}

bool terminal_keeper::in_child() {
    sigset_t all, before;
    sigfillset(&all);
    (void)sigprocmask(SIG_SETMASK, &all, &before);
    const pid_t parent = getpid();
    child_ = fork();
    if (child_ < 0) {
        (void)sigprocmask(SIG_SETMASK, &before, nullptr);
        throw tool_error{EXIT_INTERNAL, "the board cannot be shown", "", strerror(errno), ""};
    }
    if (child_ > 0) return false;
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(EXIT_INTERNAL);
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
    return true;
}

// ---- The parent ---------------------------------------------------------------------------------

// All signals are blocked, so that a parent in the background may set the terminal, too.
void terminal_keeper::restore() {
    if (!*screen_shown_) return;
    *screen_shown_ = false;
    termios flowing = before_;
    flowing.c_iflag &= ~static_cast<tcflag_t>(IXON);  // Ctrl-S may have stopped the output
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &flowing);
    (void)write_all(STDOUT_FILENO, restoring_sequence());  // a terminal that is gone needs none
    (void)tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

// The shell sees its own child stop, once the terminal is as it was. The signal that ends the stop is
// passed on here, once: a second one would have the board leave the screen again.
void terminal_keeper::stop_with_child() {
    restore();
    (void)raise(SIGSTOP);
    sigset_t going_on;
    sigemptyset(&going_on);
    sigaddset(&going_on, SIGCONT);
    const timespec at_once = {0, 0};
    (void)sigtimedwait(&going_on, nullptr, &at_once);
    (void)kill(child_, SIGCONT);
}

// A child that did not end in time was killed: the signal that it got before counts.
int terminal_keeper::end_like(int status) {
    const int number = ended_by_ != 0 ? ended_by_ : WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    for (int one : ENDING)
        if (one == number) end_by_signal(number);
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    throw tool_error{EXIT_INTERNAL, "the board ended by a signal", "", strsignal(number),
                     "report this, unless a person sent the signal"};
}

// What the terminal sends, the child gets itself.
void terminal_keeper::pass_on(const siginfo_t &signal) {
    const bool ends = signal.si_signo == SIGTERM || signal.si_signo == SIGHUP;
    const bool by_terminal = signal.si_code == SI_KERNEL;
    const sigset_t handled = board_signals();
    if (sigismember(&handled, signal.si_signo) != 1 || (by_terminal && !ends)) return;
    (void)kill(child_, signal.si_signo);
    if (signal.si_signo == SIGCONT || signal.si_signo == SIGTSTP || signal.si_signo == SIGWINCH)
        return;
    ended_by_ = signal.si_signo;
}

int terminal_keeper::wait_for_child() {
    sigset_t all;
    sigfillset(&all);
    const timespec patience = {PATIENCE_S, 0};
    for (;;) {
        int status = 0;
        while (waitpid(child_, &status, WNOHANG | WUNTRACED) == child_) {
            if (WIFSTOPPED(status)) {
                stop_with_child();
                continue;
            }
            restore();
            return end_like(status);
        }
        siginfo_t signal = {};
        const int number =
            ended_by_ != 0 ? sigtimedwait(&all, &signal, &patience) : sigwaitinfo(&all, &signal);
        if (number > 0) {
            pass_on(signal);
        } else if (ended_by_ != 0 && errno == EAGAIN) {
            (void)kill(child_, SIGKILL);
        }
    }
}

}  // namespace keyview::ctl
