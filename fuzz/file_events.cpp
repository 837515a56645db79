// The functions of libc that change files, each recorded behind its call.
#include "file_events.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <map>
#include <mutex>

namespace keyview::test {

namespace {

using kind = file_event::kind;

struct recording {
    std::mutex mutex;
    std::string directory;          // "" while nothing is recorded
    std::map<ino_t, size_t> files;  // the numbers of inodes
    std::vector<file_event> events;
};

}  // namespace

static bool syncs_are_skipped = false;

static recording &here() {
    static auto &one = *new recording;
    return one;
}

template <typename function>
static function *libc(const char *name) {
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

static std::string path_of(int fd) {
    char path[4096];
    ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
    return size < 0 ? "" : std::string(path, static_cast<size_t>(size));
}

static std::string absolute(int directory, const char *path) {
    return path[0] == '/' ? path : path_of(directory) + "/" + path;
}

// The name of a file of the recorded directory; "" for another one.
static std::string name_in(const std::string &directory, const std::string &path) {
    bool in_it = !directory.empty() && path.size() > directory.size() + 1 &&
                 path.compare(0, directory.size(), directory) == 0 && path[directory.size()] == '/';
    return in_it ? path.substr(directory.size() + 1) : "";
}

// Adds what a function makes of the recording, if it is on. Leaves errno as it is.
template <typename work>
static void record(const work &body) {
    const int error = errno;
    recording &all = here();
    std::lock_guard guard(all.mutex);
    if (!all.directory.empty()) body(all);
    errno = error;
}

// The number of an open file of the directory; false for another one.
static bool find_file(const recording &all, int fd, size_t *number) {
    struct stat found = {};
    if (fstat(fd, &found) != 0) return false;
    auto known = all.files.find(found.st_ino);
    if (known == all.files.end()) return false;
    *number = known->second;
    return true;
}

static void record_write(int fd, size_t offset, std::string data) {
    record([&](recording &all) {
        size_t file = 0;
        if (!find_file(all, fd, &file)) return;
        bool durable = (fcntl(fd, F_GETFL) & O_DSYNC) != 0;
        all.events.push_back({kind::write, file, {}, {}, offset, std::move(data), durable});
    });
}

static void record_sync(int fd) {
    record([&](recording &all) {
        size_t file = 0;
        if (find_file(all, fd, &file)) all.events.push_back({kind::sync, file});
        if (path_of(fd) == all.directory) all.events.push_back({kind::sync_names});
    });
}

static void record_new(int fd, const std::string &path) {
    if (fd < 0) return;
    record([&](recording &all) {
        const std::string name = name_in(all.directory, path);
        struct stat found = {};
        if (name.empty() || fstat(fd, &found) != 0) return;
        size_t number = all.files.size();
        all.files[found.st_ino] = number;
        all.events.push_back({kind::make, number, name});
    });
}

static int recorded_open(int directory, const char *path, int flags, mode_t mode) {
    static const auto call = libc<int(int, const char *, int, ...)>("openat");
    const std::string whole = (flags & O_CREAT) != 0 ? absolute(directory, path) : "";
    bool existed = whole.empty() || access(whole.c_str(), F_OK) == 0;
    int fd = call(directory, path, flags, mode);
    if (!existed) record_new(fd, whole);
    return fd;
}

void record_files(const std::string &directory) {
    std::lock_guard guard(here().mutex);
    here().directory = directory;
    here().files.clear();
    here().events.clear();
}

std::vector<file_event> recorded_files() {
    std::lock_guard guard(here().mutex);
    here().directory.clear();
    return std::move(here().events);
}

void skip_syncs(bool skip) {
    syncs_are_skipped = skip;
}

void note_event() {
    record([](recording &all) { all.events.push_back({kind::note}); });
}

}  // namespace keyview::test

using namespace keyview::test;

extern "C" {

int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return recorded_open(AT_FDCWD, path, flags, mode);
}

int openat(int directory, const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return recorded_open(directory, path, flags, mode);
}

ssize_t pwrite(int fd, const void *data, size_t size, off_t offset) {
    static const auto call = libc<ssize_t(int, const void *, size_t, off_t)>("pwrite");
    ssize_t wrote = call(fd, data, size, offset);
    if (wrote > 0)
        record_write(fd, static_cast<size_t>(offset),
                     {static_cast<const char *>(data), static_cast<size_t>(wrote)});
    return wrote;
}

ssize_t write(int fd, const void *data, size_t size) {
    static const auto call = libc<ssize_t(int, const void *, size_t)>("write");
    ssize_t wrote = call(fd, data, size);
    if (wrote > 0)
        record_write(fd, static_cast<size_t>(lseek(fd, 0, SEEK_CUR) - wrote),
                     {static_cast<const char *>(data), static_cast<size_t>(wrote)});
    return wrote;
}

ssize_t writev(int fd, const struct iovec *parts, int count) {
    static const auto call = libc<ssize_t(int, const struct iovec *, int)>("writev");
    ssize_t wrote = call(fd, parts, count);
    if (wrote <= 0) return wrote;
    std::string data;
    for (int n = 0; n < count; ++n)
        data.append(static_cast<const char *>(parts[n].iov_base), parts[n].iov_len);
    data.resize(static_cast<size_t>(wrote));
    record_write(fd, static_cast<size_t>(lseek(fd, 0, SEEK_CUR) - wrote), std::move(data));
    return wrote;
}

int ftruncate(int fd, off_t length) {
    static const auto call = libc<int(int, off_t)>("ftruncate");
    int rc = call(fd, length);
    if (rc == 0)
        record([&](recording &all) {
            size_t file = 0;
            if (find_file(all, fd, &file))
                all.events.push_back(
                    {file_event::kind::resize, file, {}, {}, static_cast<size_t>(length)});
        });
    return rc;
}

int fsync(int fd) {
    static const auto call = libc<int(int)>("fsync");
    int rc = syncs_are_skipped ? 0 : call(fd);
    if (rc == 0) record_sync(fd);
    return rc;
}

int fdatasync(int fd) {
    static const auto call = libc<int(int)>("fdatasync");
    int rc = syncs_are_skipped ? 0 : call(fd);
    if (rc == 0) record_sync(fd);
    return rc;
}

int mkdir(const char *path, mode_t mode) {
    static const auto call = libc<int(const char *, mode_t)>("mkdir");
    int rc = call(path, mode);
    if (rc == 0)
        record([&](recording &all) {
            if (path == all.directory) all.events.push_back({file_event::kind::make_directory});
        });
    return rc;
}

int renameat(int from, const char *old_path, int to, const char *new_path) {
    static const auto call = libc<int(int, const char *, int, const char *)>("renameat");
    int rc = call(from, old_path, to, new_path);
    if (rc == 0)
        record([&](recording &all) {
            const std::string name = name_in(all.directory, absolute(from, old_path));
            const std::string other = name_in(all.directory, absolute(to, new_path));
            if (!name.empty()) all.events.push_back({file_event::kind::rename, 0, name, other});
        });
    return rc;
}

int unlinkat(int directory, const char *path, int flags) {
    static const auto call = libc<int(int, const char *, int)>("unlinkat");
    const std::string whole = absolute(directory, path);
    int rc = call(directory, path, flags);
    if (rc == 0)
        record([&](recording &all) {
            const std::string name = name_in(all.directory, whole);
            if (!name.empty()) all.events.push_back({file_event::kind::remove, 0, name});
        });
    return rc;
}

}  // extern "C"
