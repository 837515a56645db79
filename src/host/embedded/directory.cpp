// The directory of an embedded registry.
#include "host/embedded/directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/support/error.h"

namespace keyview::host {

static constexpr const char *DATA_FILE = "data.mdb";
static constexpr const char *LMDB_LOCK_FILE = "lock.mdb";
static constexpr const char *WHAT_TO_DO =
    "; apply a cluster document with keyviewctl to create it, or set KEYVIEW_REGISTRY to where it is";

struct network_row {
    int64_t type;
    const char *name;
};

static constexpr network_row NETWORK_FILE_SYSTEMS[] = {
    {0x6969, "NFS"},      {0xFF534D42, "CIFS"},   {0xFE534D42, "SMB"},      {0x517B, "SMB"},
    {0x5346414F, "AFS"},  {0x6B414653, "AFS"},    {0x73757245, "Coda"},     {0x00C36400, "Ceph"},
    {0x01021997, "9P"},   {0x0BD00BD0, "Lustre"}, {0x01161970, "GFS2"},     {0x7461636F, "OCFS2"},
    {0x47504653, "GPFS"}, {0x19830326, "BeeGFS"}, {0x20030528, "OrangeFS"},
};

const char *network_file_system(int64_t type) noexcept {
    for (const network_row &row : NETWORK_FILE_SYSTEMS) {
        if (row.type == (type & 0xFFFFFFFF)) return row.name;
    }
    return nullptr;
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
    struct stat found = {};
    if (lstat(path.c_str(), &found) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) throw failed(path, "stat");
        throw host_error(failure::not_found, "there is no registry in '" + path + "'" + WHAT_TO_DO);
    }
    if (S_ISLNK(found.st_mode)) {
        throw refused(failure::denied, path, "it is a symbolic link; give the directory itself");
    }
    if (!S_ISDIR(found.st_mode)) throw refused(failure::usage, path, "it is not a directory");
    unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) throw failed(path, "open");
    return fd;
}

// Gives the mode that new files get.
static mode_t check_place(const std::string &path, int fd) {
    struct stat found = {};
    struct statfs system = {};
    if (fstat(fd, &found) != 0) throw failed(path, "stat");
    if (fstatfs(fd, &system) != 0) throw failed(path, "statfs");
    if ((found.st_mode & S_IWOTH) != 0) {
        throw refused(failure::denied, path,
                      "every user may write to the directory; take that right away (chmod o-w)");
    }
    const char *network = network_file_system(system.f_type);
    if (network != nullptr) {
        throw refused(
            failure::usage, path,
            std::string("it is on a network file system (") + network +
                "), where other machines' changes would damage it; use a local directory");
    }
    return 0600 | (found.st_mode & 0060);
}

// An existing file is only looked at: to open and close LMDB's lock file would undo its protection.
static bool check_file(const std::string &path, int directory, const char *name,
                       struct stat *found) {
    if (fstatat(directory, name, found, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) throw failed(path, name);
        return false;
    }
    if (S_ISREG(found->st_mode)) return true;
    throw refused(failure::denied, path, std::string(name) + " in it is not a regular file");
}

static void make_file(const std::string &path, int directory, const char *name, mode_t mode) {
    unique_fd fd(openat(directory, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!fd.valid() && errno == EEXIST) return;
    if (!fd.valid() || fchmod(fd.get(), mode) != 0) throw failed(path, name);
}

registry_directory::registry_directory(const std::string &path, open_mode mode)
    : path_(absolute(path)) {
    if (mode == open_mode::create) make_directory(path_);
    fd_ = open_directory(path_);
    mode_t file_mode = check_place(path_, fd());
    struct stat found = {};
    bool made = false;
    for (const char *name : {DATA_FILE, LMDB_LOCK_FILE, LOCK_FILE}) {
        if (check_file(path_, fd(), name, &found)) continue;
        if (name == DATA_FILE && mode == open_mode::existing) {
            throw host_error(failure::not_found,
                             "there is no registry in '" + path_ + "'" + WHAT_TO_DO);
        }
        make_file(path_, fd(), name, file_mode);
        made = true;
    }
    if (made && fsync(fd()) != 0) throw failed(path_, "fsync");
    if (!check_file(path_, fd(), DATA_FILE, &found)) throw failed(path_, DATA_FILE);
    data_id_ = {found.st_dev, found.st_ino};
}

}  // namespace keyview::host
