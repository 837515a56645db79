// edit: the document of one database in an editor, and back as a plan.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "admin/care/export.h"
#include "admin/document/document.h"
#include "ctl/change_view.h"
#include "ctl/child.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/terminal.h"
#include "model/folding.h"
#include "model/path.h"

namespace keyview::ctl {

namespace {

// The text that is edited, in a file of its owner's own: gone at the end of the scope unless kept.
class edited_text {
  public:
    explicit edited_text(const std::string &text) {
        const std::string folder = environment("TMPDIR");
        path_ = (folder.empty() ? "/tmp" : folder) + "/keyview-XXXXXX.json";
        constexpr int SUFFIX = 5;
        int fd = mkostemps(path_.data(), SUFFIX, O_CLOEXEC);
        bool written = fd >= 0 && write_all(fd, text);
        int error = errno;
        if (fd >= 0) close(fd);
        if (written) return;
        if (fd >= 0) unlink(path_.c_str());
        throw tool_error{exit_of_errno(error), "there is no file to edit", path_, strerror(error),
                         "set TMPDIR to a folder where this user may write"};
    }
    edited_text(const edited_text &) = delete;
    edited_text &operator=(const edited_text &) = delete;
    ~edited_text() {
        if (!kept_) unlink(path_.c_str());
    }

    const std::string &path() const { return path_; }

    // The remedy of a failure after which the text is still wanted.
    std::string keep() {
        kept_ = true;
        return "the edited text is kept in " + path_;
    }

  private:
    std::string path_;
    bool kept_ = false;
};

// An interrupt at the terminal is for the editor.
struct interrupts_ignored {
    interrupts_ignored() : of_int(signal(SIGINT, SIG_IGN)), of_quit(signal(SIGQUIT, SIG_IGN)) {}
    interrupts_ignored(const interrupts_ignored &) = delete;
    interrupts_ignored &operator=(const interrupts_ignored &) = delete;
    ~interrupts_ignored() {
        (void)signal(SIGINT, of_int);
        (void)signal(SIGQUIT, of_quit);
    }
    void (*of_int)(int), (*of_quit)(int);
};

}  // namespace

// The shell splits what the variable holds, such as "code --wait".
static int run_editor(const std::string &file) {
    std::string editor = environment("VISUAL");
    if (editor.empty()) editor = environment("EDITOR");
    if (editor.empty()) editor = "vi";
    interrupts_ignored ignored;
    pid_t child = start_child({"sh", "-c", editor + " \"$1\"", "sh", file});
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return child < 0 ? -1 : exit_code_in(status);
}

static void edit_text(const tool &shared, const std::string &before, edited_text *file) {
    shared.reporter->stop();
    int code = run_editor(file->path());
    shared.reporter->start();
    if (code == 0) return;
    constexpr int NOT_RUN = 126;  // and 127
    bool changed = code < NOT_RUN && read_file(file->path()) != before;
    throw tool_error{code == NOT_RUN || code == NOT_RUN + 1 ? EXIT_USAGE : EXIT_NO,
                     "nothing was changed", "",
                     "the editor ended with the code " + std::to_string(code),
                     changed ? file->keep() : "VISUAL or EDITOR chooses the editor"};
}

// What the text may change: its database and nothing beside it.
static void check_within(const std::string &database, const admin::change_result &planned) {
    for (const admin::change_row &one : planned.changes) {
        if (path_within(one.path, database)) continue;
        throw admin::error(
            KEYVIEW_FAILURE_CONTENT,
            "the text may hold this one database, and changes " + std::string(one.path));
    }
}

static admin::change_result apply_text(const std::string &text, const std::string &database,
                                       uint64_t revision, admin::change_options options) {
    options.prune = true;
    options.prune_within = database;
    if (!options.if_revision) options.if_revision = revision;
    options.before_write = [&database,
                            write = options.before_write](const admin::change_result &planned) {
        check_within(database, planned);
        write(planned);
    };
    admin::change_result changed = admin::apply_document(text, options);
    check_within(database, changed);  // a dry run has no write
    return changed;
}

static exit_code run_edit(const tool &shared, const given_names &names) {
    const std::string database = database_key(names[0]);
    uint64_t revision = 0;
    const std::string before =
        attempt("database " + names[0] + " cannot be edited", shared.registry,
                [&] { return admin::export_database(database, &revision); });
    edited_text file(before);
    edit_text(shared, before, &file);
    const std::string text = read_file(file.path());
    change_command command = {"database " + names[0] + " is not changed", file.path(), true};
    try {
        return carry_out(shared, command, [&](const admin::change_options &options) {
            if (text == before) return admin::change_result{{}, {}, revision};
            return apply_text(text, database, revision, options);
        });
    } catch (tool_error &error) {
        error.todo += (error.todo.empty() ? "" : "; ") + file.keep();
        throw;
    }
}

void add_edit_command(CLI::App *app, tool *shared) {
    static constexpr command_row COMMANDS[] = {
        {"edit",
         "Edit the document of a database in $VISUAL or $EDITOR, and make the database what it says",
         "DB --dry-run --if-revision --yes", run_edit},
    };
    add_commands(app, shared, COMMANDS);
}

}  // namespace keyview::ctl
