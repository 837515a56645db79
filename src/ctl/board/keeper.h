// Keeps the terminal: the process that was started stays its parent and restores it however the child,
// which shows the board, ends or stops.
#pragma once

#include <sys/types.h>
#include <termios.h>

#include <csignal>
#include <memory>
#include <string>

namespace keyview::ctl {

class terminal_keeper {
  public:
    terminal_keeper();
    terminal_keeper(const terminal_keeper &) = delete;
    terminal_keeper &operator=(const terminal_keeper &) = delete;
    ~terminal_keeper();

    // Forks; true in the child, which ends with its parent.
    bool in_child();

    // In the parent: waits for the child's end and returns its exit code. Ends as the child did if
    // that was a signal that ends programs; throws tool_error for any other.
    int wait_for_child();

    // In the child: whether the screen is on the terminal.
    void note_screen(bool shown) { *screen_shown_ = shown; }

  private:
    void restore();
    void stop_with_child();
    int end_like(int status);
    void pass_on(const siginfo_t &signal);

    termios before_ = {};
    bool *screen_shown_;  // in memory that both share
    pid_t child_ = -1;
    int ended_by_ = 0;  // the signal that ends it, once there was one
};

// The signals that a board handles itself.
sigset_t board_signals();

// Ends the process by a signal, as if it had not been handled.
void end_by_signal(int number);

}  // namespace keyview::ctl
