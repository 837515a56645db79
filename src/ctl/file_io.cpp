// See file_io.h.
#include "ctl/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <utility>

#include "admin/care/backup.h"
#include "ctl/large_heap.h"
#include "ctl/output.h"
#include "ctl/yaml_text.h"
#include "model/secret.h"

namespace keyview::ctl {

std::string file_label(const std::string &name) {
    return name == "-" ? "standard input" : name;
}

[[noreturn]] static void fail(const char *what, const std::string &name, int error) {
    throw tool_error{exit_of_errno(error), what, file_label(name), strerror(error),
                     "check the name, the permissions and the free space"};
}

static std::string folder_of(const std::string &name) {
    size_t slash = name.rfind('/');
    return slash == name.npos ? "." : name.substr(0, slash + 1);
}

namespace {

// A descriptor, closed at the end of the scope.
struct open_file {
    ~open_file() {
        if (fd > STDERR_FILENO) close(fd);
    }
    int fd = -1;
};

// A file that is gone at the end of the scope, unless it was kept. Where the file system can, it
// has no name until it is whole, so that not even a killed program leaves a part of one behind. A file
// without a name cannot replace another one, it needs a name beside it for a moment: a child takes both
// steps, so that who kills this program does not come between them.
class temporary_file {
  public:
    explicit temporary_file(std::string target) : target_(std::move(target)) {
        file_.fd = open(folder_of(target_).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, PRIVATE_FILE);
        if (file_.fd >= 0) return;
        name_ = target_ + ".XXXXXX";
        file_.fd = mkostemp(name_.data(), O_CLOEXEC);
        if (file_.fd < 0) name_.clear();
    }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;
    ~temporary_file() {
        if (!name_.empty()) unlink(name_.c_str());
    }

    int fd() const { return file_.fd; }

    // Under its target's name from now on; false, with errno, if that cannot be.
    bool keep() {
        if (name_.empty()) return keep_in_child();
        if (rename(name_.c_str(), target_.c_str()) != 0) return false;
        name_.clear();
        return true;
    }

  private:
    bool keep_in_child() const {
        constexpr int TRIES = 100;  // a machine that went down may have left names
        const std::string self = "/proc/self/fd/" + std::to_string(file_.fd);
        for (int n = 0; n < TRIES; ++n) {
            const std::string name = target_ + "." + std::to_string(getpid() + n);
            const pid_t child = _Fork();
            if (child == 0) _exit(link_and_rename(self.c_str(), name.c_str()));
            if (child < 0) return false;
            int status = 0;
            while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
            }
            errno = WIFEXITED(status) ? WEXITSTATUS(status) : EINTR;
            if (errno != EEXIST) return errno == 0;
        }
        return false;
    }

    // 0, or errno. Other threads stand still in the child: this calls nothing but the kernel.
    int link_and_rename(const char *self, const char *name) const {
        if (linkat(AT_FDCWD, self, AT_FDCWD, name, AT_SYMLINK_FOLLOW) != 0) return errno;
        if (rename(name, target_.c_str()) == 0) return 0;
        const int error = errno;
        (void)unlink(name);
        return error;
    }

    std::string target_;
    std::string name_;
    open_file file_;
};

// Holds back the signals that end the program, so that no temporary file is left behind.
struct signals_held {
    signals_held() {
        sigset_t ending;
        sigemptyset(&ending);
        for (int number : {SIGHUP, SIGINT, SIGTERM})
            sigaddset(&ending, number);
        sigprocmask(SIG_BLOCK, &ending, &before);
    }
    ~signals_held() { sigprocmask(SIG_SETMASK, &before, nullptr); }
    sigset_t before;
};

}  // namespace

static const char *const CANNOT_READ = "the file cannot be read";
static const char *const CANNOT_WRITE = "the file cannot be written; its content is as before";

std::string read_file(const std::string &name) {
    open_file file;
    file.fd = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (file.fd < 0) fail(CANNOT_READ, name, errno);
    std::string content;
    struct stat found = {};
    if (fstat(file.fd, &found) == 0 && S_ISREG(found.st_mode)) {
        prepare_heap(static_cast<size_t>(found.st_size));
        content.reserve(static_cast<size_t>(found.st_size));
    }
    std::string block(size_t{64} << 10, '\0');
    const model::cleared_at_end clears(&block);  // it may have held a secret
    for (;;) {
        ssize_t got = ::read(file.fd, block.data(), block.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) fail(CANNOT_READ, name, errno);
        if (got == 0) return content;
        content.append(block, 0, static_cast<size_t>(got));
    }
}

std::string read_document(const std::string &name, const std::string &what) {
    std::string content = read_file(name);
    return attempt(what, file_label(name), [&] {
        return admin::is_backup(content) ? std::move(content)
                                         : json_text_of(name, std::move(content));
    });
}

void refuse_own_file(const std::string &name, const std::string &registry_url) {
    constexpr std::string_view HEAD = "lmdb:";
    if (name == "-" || registry_url.rfind(HEAD, 0) != 0) return;
    std::error_code missing;
    std::filesystem::path file = std::filesystem::weakly_canonical(name, missing);
    std::filesystem::path folder = registry_url.substr(HEAD.size());
    if (!std::filesystem::equivalent(file.parent_path(), folder, missing)) return;
    throw tool_error{
        EXIT_USAGE, "nothing was written", file_label(name),
        "the file is in the folder of the registry, where it would destroy what is stored",
        "give a file in another folder"};
}

static void write_into(const std::string &name, std::string_view content) {
    open_file file;
    file.fd = open(name.c_str(), O_WRONLY | O_CLOEXEC);
    if (file.fd < 0) fail(CANNOT_WRITE, name, errno);
    if (!write_all(file.fd, content)) fail(CANNOT_WRITE, name, errno);
}

// Makes the rename last; where a folder cannot be synced, it is done without.
static void sync_folder(const std::string &name) {
    open_file file;
    file.fd = open(folder_of(name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (file.fd >= 0) (void)fsync(file.fd);
}

static mode_t mode_of_new_file() {
    mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
}

void replace_file(const std::string &name, std::string_view content, int mode) {
    struct stat old;
    bool exists = stat(name.c_str(), &old) == 0;
    if (exists && S_ISDIR(old.st_mode)) fail(CANNOT_WRITE, name, EISDIR);
    if (exists && !S_ISREG(old.st_mode)) return write_into(name, content);

    signals_held held;
    std::error_code missing;
    std::string target = std::filesystem::canonical(name, missing);  // behind a symbolic link
    if (missing) target = name;
    temporary_file beside(target);
    if (beside.fd() < 0) fail(CANNOT_WRITE, name, errno);
    mode_t kept = exists ? old.st_mode & 07777 : mode_of_new_file();
    if (fchmod(beside.fd(), mode == KEEP_MODE ? kept : static_cast<mode_t>(mode)) != 0)
        fail(CANNOT_WRITE, name, errno);
    if (!write_all(beside.fd(), content) || fsync(beside.fd()) != 0 || !beside.keep())
        fail(CANNOT_WRITE, name, errno);
    sync_folder(target);
}

void require_absent(const std::string &name) {
    struct stat old;
    if (stat(name.c_str(), &old) != 0 || !S_ISREG(old.st_mode)) return;
    throw tool_error{EXIT_USAGE, CANNOT_WRITE, file_label(name),
                     "it exists, and what is salvaged is not the whole tree",
                     "choose another name, or remove the file first"};
}

}  // namespace keyview::ctl
