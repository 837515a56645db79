// lock run and lock list: the cluster's named locks for scripts and people.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "admin/care/inspection.h"
#include "admin/document/meanings.h"
#include "ctl/child.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "ctl/terminal.h"
#include "ctl/text.h"
#include "model/folding.h"
#include "model/locks.h"

namespace keyview::ctl {

namespace {
struct run_options {
    std::string name;
    std::vector<std::string> command;
    bool shared = false, any_name = false;
    std::optional<double> wait_s;
};
}  // namespace

// A signal that was sent to this process alone, for the command.
static volatile sig_atomic_t to_forward = 0;

// Waits for the child; forwards signals to it, and terminates it, once, if the lock is lost.
static int wait_for(pid_t child, const admin::held_lock &lock) {
    constexpr useconds_t POLL_US = 20000;
    bool signalled = false;
    for (int status = 0;; usleep(POLL_US)) {
        pid_t ended = waitpid(child, &status, WNOHANG);
        if (ended == child) return exit_code_in(status);
        if (ended < 0 && errno != EINTR) return EXIT_INTERNAL;
        if (int number = to_forward; number != 0) {
            to_forward = 0;
            (void)kill(child, number);
        }
        if (signalled || lock.still_held()) continue;
        signalled = true;
        print_warning("the lock was lost; the command gets a termination signal");
        (void)kill(child, SIGTERM);
    }
}

// The lock that covers a key, or the database, of a near name; "" if there is none.
static std::string lock_meant(const std::string &name) {
    const std::string path(cover_of(name).path.empty() ? name : std::string(cover_of(name).path));
    const std::string database = nearest(path, registered_names(DB_ROOT));
    if (!database.empty()) return lock_of(database_key(database));
    const std::string folded = path_fault(path) == nullptr ? admin::folded_path(path) : "";
    const std::string key = key_exists(folded) ? folded : key_meant(folded);
    return key.empty() ? "" : key == DB_ROOT ? LOCK_HEAD + key : lock_of(key);
}

// No program uses a lock of another form. One of a record that is not there may be misspelt.
static void check_name(const std::string &name) {
    const std::string path(cover_of(name).path);
    bool used = !path.empty() && admin::folded_path(path) == path &&
                (path == DB_ROOT ? name == LOCK_HEAD + path : name == lock_of(path));
    if (used && key_exists(path)) return;
    const std::string meant = lock_meant(name);
    if (used && meant.empty()) return;
    throw tool_error{
        EXIT_USAGE, "the lock " + name + " is not taken", "",
        used ? "there is no key " + path : "no program uses a lock of this name",
        (meant.empty() ? "" : "did you mean " + meant + "? ") + "--any-name takes it all the same"};
}

// Adds the lock to those that the command knows of.
static void announce(const tool &shared, const std::string &name) {
    std::string lines = environment(LOCKS_ABOVE);
    if (!lines.empty()) lines += "\n";
    lines += std::to_string(getpid()) + "\t" + absolute_url(shared.registry) + "\t" + name;
    (void)setenv(LOCKS_ABOVE, lines.c_str(), 1);  // without it, the command only waits in vain
}

static exit_code run_lock(const tool &shared, const run_options &options) {
    if (!options.any_name) check_name(options.name);
    shared.reporter->step("waits for the lock " + options.name);
    int64_t wait_ms = options.wait_s ? static_cast<int64_t>(*options.wait_s * 1000) : -1;
    admin::held_lock lock = attempt("the lock is not taken", shared.registry, [&] {
        return admin::registry::open().lock(options.name, options.shared, wait_ms);
    });
    shared.reporter->stop();
    // The lock is kept until the command has ended. A terminal's interrupt reaches both.
    (void)signal(SIGINT, SIG_IGN);
    for (int number : {SIGTERM, SIGHUP})
        (void)signal(number, [](int its_number) { to_forward = its_number; });
    announce(shared, options.name);
    pid_t child = start_child(options.command);
    if (child < 0) {
        throw tool_error{EXIT_INTERNAL, "the command is not run", "", strerror(errno),
                         "try again when there is room for a process"};
    }
    return static_cast<exit_code>(wait_for(child, lock));
}

static exit_code run_list(const tool &shared, const given_names &) {
    view_list rows;
    for (const admin::lock_user &user :
         attempt("the locks cannot be listed", shared.registry, admin::list_locks)) {
        const lock_holder holder = holder_in_parts(user.holder);
        rows.push_back({view_fields{{"lock", {user.name}},
                                    {"mode", {user.shared ? "shared" : "exclusive"}},
                                    {"state", {user.waits ? "waits" : "holds"}},
                                    {"by", optional_view(std::string(holder.process))},
                                    {"since", optional_view(std::string(holder.since))}}});
    }
    return show_result(shared.format, "locks", "locks", {std::move(rows)});
}

void add_lock_commands(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"list", "List the holders of locks and their waiters, as far as the registry knows", "",
         run_list},
    };
    CLI::App *lock = app->add_subcommand("lock", "Use the cluster's named locks");
    lock->require_subcommand(1);
    lock->fallthrough();
    auto options = std::make_shared<run_options>();
    CLI::App *run = add_command(
        lock, shared, "run",
        "Run a command under a lock; the exit code is the command's, 5 if the lock is not granted",
        [=] { return run_lock(*shared, *options); });
    run->add_option("LOCK", options->name, "The lock, such as LKRT.DATABASE.DATABASES.sales")
        ->required();
    run->add_flag("--shared", options->shared, "Share the lock with others that do");
    run->add_flag("--any-name", options->any_name,
                  "Also a name that no program uses, or one of a record that does not exist");
    run->add_option("--wait", options->wait_s,
                    "Seconds to wait for it; without it, the setting lock_wait")
        ->check(seconds_up_to(86400), "", "");
    run->add_option("CMD", options->command, "The command with its arguments, behind --")
        ->required();
    add_commands(lock, shared, COMMANDS);
}

}  // namespace keyview::ctl
