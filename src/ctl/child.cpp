// See child.h.
#include "ctl/child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "ctl/output.h"

namespace keyview::ctl {

pid_t start_child(std::vector<std::string> command) {
    std::vector<char *> words;
    words.reserve(command.size() + 1);
    for (std::string &word : command)
        words.push_back(word.data());
    words.push_back(nullptr);
    pid_t child = fork();
    if (child != 0) return child;
    for (int number : {SIGPIPE, SIGINT, SIGQUIT})
        (void)signal(number, SIG_DFL);
    execvp(words[0], words.data());
    print_warning(command[0] + " cannot be run: " + strerror(errno));
    _exit(127);
}

int exit_code_in(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace keyview::ctl
