// lock run and lock list: the cluster's named locks for scripts and people.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "admin/admin.h"
#include "ctl/command.h"
#include "ctl/output.h"

namespace keyview::ctl {

namespace {
struct run_options {
    std::string name;
    std::vector<std::string> command;
    bool shared = false;
    std::optional<double> wait_s;
};
}  // namespace

// Never returns in the child: what it runs, or 127 as a shell has it.
static pid_t start(std::vector<std::string> command) {
    std::vector<char *> words;
    words.reserve(command.size() + 1);
    for (std::string &word : command)
        words.push_back(word.data());
    words.push_back(nullptr);
    pid_t child = fork();
    if (child != 0) return child;
    for (int number : {SIGPIPE, SIGINT})
        (void)signal(number, SIG_DFL);
    execvp(words[0], words.data());
    tell(command[0] + " cannot be run: " + strerror(errno));
    _exit(127);
}

// What was sent to this process alone, for the command.
static volatile sig_atomic_t to_hand_on = 0;

// Waits for the child; hands signals on to it, and tells it, once, that the lock is lost.
static int wait_for(pid_t child, const admin::lock_hold &lock) {
    constexpr useconds_t LOOK_EVERY_US = 20000;
    bool told = false;
    for (int status = 0;; usleep(LOOK_EVERY_US)) {
        pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        if (ended < 0 && errno != EINTR) return EXIT_INTERNAL;
        if (int number = to_hand_on; number != 0) {
            to_hand_on = 0;
            (void)kill(child, number);
        }
        if (told || lock.still_held()) continue;
        told = true;
        tell("the lock was lost; the command is told by a termination signal");
        (void)kill(child, SIGTERM);
    }
}

static exit_code run_lock(const tool &shared, const run_options &options) {
    shared.told->step("waits for the lock " + options.name);
    std::optional<uint32_t> wait_ms;
    if (options.wait_s) wait_ms = static_cast<uint32_t>(*options.wait_s * 1000);
    admin::lock_result taken = admin::take_lock(options.name, options.shared, wait_ms);
    check_result(taken, "the lock is not taken", shared.registry);
    shared.told->stop();
    // The lock is kept until the command has ended. A terminal's interrupt reaches both.
    (void)signal(SIGINT, SIG_IGN);
    for (int number : {SIGTERM, SIGHUP})
        (void)signal(number, [](int its_number) { to_hand_on = its_number; });
    pid_t child = start(options.command);
    if (child < 0) {
        throw tool_error{EXIT_INTERNAL, "the command is not run", "", strerror(errno),
                         "try again when there is room for a process"};
    }
    return static_cast<exit_code>(wait_for(child, *taken.lock));
}

static exit_code run_list(const tool &shared) {
    admin::locks_result locks = admin::list_locks();
    check_result(locks, "the locks cannot be listed", shared.registry);
    view_list rows;
    for (const admin::lock_user &user : locks.users) {
        rows.push_back({view_fields{{"lock", {user.name}},
                                    {"mode", {user.shared ? "shared" : "exclusive"}},
                                    {"state", {user.waits ? "waits" : "holds"}},
                                    {"by", optional_view(user.holder)}}});
    }
    show_result(shared.format, "locks", "locks", {std::move(rows)});
    return EXIT_DONE;
}

void add_lock_commands(CLI::App *app, tool *shared) {
    CLI::App *lock = app->add_subcommand("lock", "Use the cluster's named locks");
    lock->require_subcommand(1);
    lock->fallthrough();
    auto options = std::make_shared<run_options>();
    CLI::App *run = add_command(
        lock, shared, "run",
        "Run a command under a lock; the exit code is the command's, 5 if the lock is not granted",
        [=] { return run_lock(*shared, *options); });
    run->add_option("NAME", options->name, "The lock, such as LKRT.DATABASE.DATABASES.sales")
        ->required();
    run->add_flag("--shared", options->shared, "Share the lock with others that do");
    run->add_option("--wait", options->wait_s,
                    "Seconds to wait for it; without it, the setting lock_wait")
        ->check(CLI::Range(0.0, 86400.0));
    run->add_option("CMD", options->command, "The command with its arguments, behind --")
        ->required();
    add_command(lock, shared, "list",
                "List who holds or waits for a lock, as far as it can be told",
                [shared] { return run_list(*shared); });
}

}  // namespace keyview::ctl
