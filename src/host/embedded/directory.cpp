// The directory of an embedded registry.
#include "host/embedded/directory.h"

#include <fcntl.h>
#include <lmdb.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "host/support/deadline.h"
#include "host/support/error.h"

namespace keyview::host {

static constexpr const char *DATA_FILE = "data.mdb";
static constexpr const char *NEW_DATA_FILE = "data.new";
static constexpr const char *FORMAT_FILE = "format";
static constexpr const char *LMDB_LOCK_FILE = "lock.mdb";
static constexpr const char *FILES[] = {DATA_FILE, LMDB_LOCK_FILE, registry_directory::LOCK_FILE};
static constexpr uint32_t CREATION_WAIT_MS = 30000;
static constexpr size_t FIRST_MAP_SIZE = 64 << 10;
static constexpr const char *WHAT_TO_DO =
    "; apply a cluster document with keyviewctl to create it, or set KEYVIEW_REGISTRY to where it is";

static constexpr std::pair<int64_t, const char *> NETWORK_FILE_SYSTEMS[] = {
    {0x6969, "NFS"},      {0xFF534D42, "CIFS"},   {0xFE534D42, "SMB"},      {0x517B, "SMB"},
    {0x5346414F, "AFS"},  {0x6B414653, "AFS"},    {0x73757245, "Coda"},     {0x00C36400, "Ceph"},
    {0x01021997, "9P"},   {0x0BD00BD0, "Lustre"}, {0x01161970, "GFS2"},     {0x7461636F, "OCFS2"},
    {0x47504653, "GPFS"}, {0x19830326, "BeeGFS"}, {0x20030528, "OrangeFS"},
};

const char *network_file_system(int64_t type) noexcept {
    for (auto [known, name] : NETWORK_FILE_SYSTEMS)
        if (known == (type & 0xFFFFFFFF)) return name;
    return nullptr;
}

bool read_status(int fd, const char *name, file_status *out) noexcept {
    struct statx found = {};
    int flags = AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW;
    if (statx(fd, name, flags, STATX_INO | STATX_SIZE, &found) != 0) return false;
    out->id = {makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino};
    out->size = found.stx_size;
    return true;
}

int lengthen(int fd, size_t size) {
    static char zeros[64 << 10];  // as a constant they would lie in the library's file
    struct stat found = {};
    if (fstat(fd, &found) != 0) return errno;
    auto at = static_cast<size_t>(found.st_size);
    if (at >= size) return 0;
    while (at < size) {
        ssize_t wrote =
            pwrite(fd, zeros, std::min(sizeof(zeros), size - at), static_cast<off_t>(at));
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote < 0) return errno;
        at += static_cast<size_t>(wrote);
    }
    // The length must be on the disk before a commit states it.
    return fsync(fd) == 0 ? 0 : errno;
}

static host_error refused(failure kind, const std::string &path, const std::string &why) {
    return host_error(kind, "the registry in '" + path + "' cannot be used: " + why);
}

// For a call that failed with errno.
static host_error failed(const std::string &path, const std::string &what) {
    bool denied = errno == EACCES || errno == EPERM || errno == EROFS;
    failure kind = denied ? failure::denied : failure::registry;
    return refused(kind, path, what + ": " + strerror(errno));
}

static std::string absolute(const std::string &path) {
    std::string whole = path;
    if (whole[0] != '/') {
        char *here = get_current_dir_name();
        if (here == nullptr) throw failed(path, "the working directory is unknown");
        whole = std::string(here) + "/" + path;
        free(here);
    }
    // A trailing slash would follow a symbolic link.
    while (whole.size() > 1 && whole.back() == '/')
        whole.pop_back();
    return whole;
}

static void sync_directory(const std::string &path) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid() || fsync(fd.get()) != 0) throw failed(path, "fsync");
}

static void make_directory(const std::string &path) {
    if (mkdir(path.c_str(), 0700) != 0) {
        if (errno == EEXIST) return;
        if (errno != ENOENT) throw failed(path, "mkdir");
        throw refused(failure::not_found, path, "the directory above it does not exist");
    }
    if (chmod(path.c_str(), 0700) != 0) throw failed(path, "chmod");
    sync_directory(path.substr(0, path.rfind('/') + 1));
}

static unique_fd open_directory(const std::string &path) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.valid()) return fd;
    const int error = errno;
    struct stat found = {};
    if (lstat(path.c_str(), &found) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) throw failed(path, "stat");
        throw host_error(failure::not_found, "there is no registry in '" + path + "'" + WHAT_TO_DO);
    }
    if (S_ISLNK(found.st_mode)) {
        throw refused(failure::denied, path, "it is a symbolic link; give the directory itself");
    }
    if (!S_ISDIR(found.st_mode)) throw refused(failure::usage, path, "it is not a directory");
    errno = error;
    throw failed(path, "open");
}

// Returns the mode of files. A group is given the files only together with its set-group-ID
// directory, whose group each new file then has; else it would be that of some user.
static mode_t check_directory(const std::string &path, int fd) {
    struct stat found = {};
    struct statfs system = {};
    if (fstat(fd, &found) != 0) throw failed(path, "stat");
    if (fstatfs(fd, &system) != 0) throw failed(path, "statfs");
    if ((found.st_mode & S_IWOTH) != 0) {
        throw refused(failure::denied, path,
                      "every user may write to the directory; remove that right (chmod o-w)");
    }
    const char *network = network_file_system(system.f_type);
    if (network != nullptr) {
        throw refused(
            failure::usage, path,
            std::string("it is on a network file system (") + network +
                "), where other machines' changes would damage it; use a local directory");
    }
    return 0600 | ((found.st_mode & S_ISGID) != 0 ? found.st_mode & 0060 : 0);
}

// The version of all files, of the rows in them and of the words in the lock file. Without its file it
// is 1: what writes another version makes the file, with the version in place of 1. Such a registry is
// not damaged: nobody should restore a backup over it.
static void check_format(const std::string &path, int directory) {
    static constexpr std::string_view HEAD = "keyview ", KNOWN = "keyview 1\n";
    unique_fd fd(openat(directory, FORMAT_FILE, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT) return;
    char text[32];
    ssize_t size = fd.valid() ? pread(fd.get(), text, sizeof text, 0) : -1;
    if (size < 0) throw failed(path, FORMAT_FILE);
    std::string_view found(text, static_cast<size_t>(size));
    if (found == KNOWN) return;
    if (found.substr(0, HEAD.size()) != HEAD)
        throw refused(failure::registry, path, "its file \"format\" is not one of keyview");
    found.remove_prefix(HEAD.size());
    throw refused(
        failure::registry, path,
        "it has format " + std::string(found.substr(0, found.find('\n'))) +
            ", and this version of keyview reads format 1; install the version that wrote it");
}

// Does not open an existing file: to open and close LMDB's lock file would undo its protection.
static bool check_file(const std::string &path, int directory, const char *name,
                       struct stat *found) {
    if (fstatat(directory, name, found, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) throw failed(path, name);
        return false;
    }
    if (!S_ISREG(found->st_mode))
        throw refused(failure::denied, path, std::string(name) + " in it is not a regular file");
    if ((found->st_mode & S_IWOTH) == 0) return true;
    throw refused(
        failure::denied, path,
        std::string("every user may write to ") + name + " in it; remove that right (chmod o-w)");
}

static void make_file(const std::string &path, int directory, const char *name, mode_t mode) {
    unique_fd fd(openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd.valid() && errno == EEXIST) return;
    if (!fd.valid() || fchmod(fd.get(), mode) != 0) throw failed(path, name);
}

// Makes a whole, empty data file of an empty one, on the disk. Returns 0 or the error of the system
// or of LMDB.
static int fill_data_file(const std::string &path) {
    MDB_env *made = nullptr;
    int rc = mdb_env_create(&made);
    if (rc != 0) return rc;
    std::unique_ptr<MDB_env, decltype(&mdb_env_close)> env(made, &mdb_env_close);
    int fd = -1;
    rc = mdb_env_set_mapsize(made, FIRST_MAP_SIZE);
    // No other process knows the file yet, so it needs no lock file.
    if (rc == 0) rc = mdb_env_open(made, path.c_str(), MDB_NOSUBDIR | MDB_NOLOCK, 0600);
    if (rc == 0) rc = mdb_env_get_fd(made, &fd);
    return rc == 0 ? lengthen(fd, FIRST_MAP_SIZE) : rc;
}

// The file is renamed when it is whole, so no process opens an unfinished one; processes that make
// it at once take turns. Removes what an interrupted one left behind.
static void make_data(const std::string &path, int directory, mode_t mode) {
    deadline wait(CREATION_WAIT_MS);
    unique_fd turn(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!turn.valid()) throw failed(path, "open");
    while (flock(turn.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || !wait.pause()) throw failed(path, "flock");
    }
    struct stat found = {};
    if (check_file(path, directory, DATA_FILE, &found)) return;
    if (unlinkat(directory, NEW_DATA_FILE, 0) != 0 && errno != ENOENT) throw failed(path, "unlink");
    make_file(path, directory, NEW_DATA_FILE, mode);
    int rc = fill_data_file(path + "/" + NEW_DATA_FILE);
    if (rc != 0)
        throw refused(failure::registry, path, std::string("data.mdb: ") + mdb_strerror(rc));
    if (renameat(directory, NEW_DATA_FILE, directory, DATA_FILE) != 0) throw failed(path, "rename");
}

registry_directory::registry_directory(const std::string &path, open_mode mode)
    : path_(absolute(path)), named_(path_ + "/.") {
    if (mode == open_mode::create) make_directory(path_);
    fd_ = open_directory(path_);
    file_status own;
    if (!read_status(fd(), "", &own)) throw failed(path_, "statx");
    id_ = own.id;
    file_mode_ = check_directory(path_, fd());
    check_format(path_, fd());
    struct stat found = {};
    bool made = false;
    for (size_t n = 0; n < std::size(FILES); ++n) {
        if (!check_file(path_, fd(), FILES[n], &found)) {
            make(n, mode);
            made = true;
            if (!check_file(path_, fd(), FILES[n], &found)) throw failed(path_, FILES[n]);
        }
        ids_[n] = {found.st_dev, found.st_ino};
    }
    if (made && fsync(fd()) != 0) throw failed(path_, "fsync");
}

void registry_directory::make(size_t file, open_mode mode) {
    if (FILES[file] != DATA_FILE) return make_file(path_, fd(), FILES[file], file_mode_);
    if (mode == open_mode::create) return make_data(path_, fd(), file_mode_);
    throw host_error(failure::not_found, "there is no registry in '" + path_ + "'" + WHAT_TO_DO);
}

std::string registry_directory::excess_rights() const {
    char right[8];
    (void)snprintf(right, sizeof right, "%04o", file_mode_);
    std::string names;
    for (const char *name : FILES) {
        struct stat found = {};
        bool known = fstatat(fd(), name, &found, AT_SYMLINK_NOFOLLOW) == 0;
        bool excess = known && (found.st_mode & 0777 & ~file_mode_) != 0;
        if (excess) names += (names.empty() ? "" : ", ") + std::string(name);
    }
    if (names.empty()) return "";
    return "others may use " + names + ": change the mode to " + right + " (chmod " + right + ")";
}

// LMDB's two files must not become empty either. The lock file is empty until a lock is taken.
void registry_directory::require_in_place() const {
    file_status named;  // none where this process may not search, or in another root
    if (read_status(AT_FDCWD, named_.c_str(), &named) && named.id != id_) {
        throw host_error(failure::registry, "the registry in '" + path_ +
                                                "' failed: the directory was replaced while in "
                                                "use; restart the program");
    }
    for (size_t n = 0; n < std::size(FILES); ++n) {
        file_status found;
        bool same = read_status(fd(), FILES[n], &found) && found.id == ids_[n];
        if (same && (found.size > 0 || FILES[n] == LOCK_FILE)) continue;
        throw host_error(failure::registry, "the registry in '" + path_ + "' failed: " + FILES[n] +
                                                " was deleted, replaced or emptied while in use; "
                                                "restart the program");
    }
}

unique_fd registry_directory::open_data() const {
    unique_fd data(openat(fd(), DATA_FILE, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    struct stat found = {};
    if (!data.valid() || fstat(data.get(), &found) != 0) throw failed(path_, DATA_FILE);
    if (data_id() != file_id(found.st_dev, found.st_ino)) {
        throw refused(failure::registry, path_, "data.mdb is being replaced");
    }
    return data;
}

host_error registry_directory::lock_file_failed(const char *action) const {
    failure kind = errno == EACCES ? failure::denied : failure::registry;
    const char *advice = errno == EMFILE ? "; allow the program more files (ulimit -n)" : "";
    return host_error(kind, "the lock file of the registry in '" + path_ + "' cannot be " + action +
                                ": " + strerror(errno) + advice);
}

}  // namespace keyview::host
