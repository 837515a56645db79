// Fails each call of the system that the kit and LMDB make, once, some allocations, and each of a reader:
// what is under way ends with a failure that has a text, or succeeds; the registry then has the tree of
// the last change that was acknowledged or of one that was tried since, the check finds nothing, and the
// next change succeeds.
//
// Usage: failed_calls [EVERY [FIRST]]   one call of EVERY (1), from the number FIRST (1)
//        failed_calls --one NUMBER ERROR   that call alone, in this process; -1: an allocation
//        failed_calls --writes          each write to a file
//        failed_calls --unnoticed       as if a failed write had succeeded: this must be found
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <iostream>
#include <map>
#include <new>

#include "admin/care/inspection.h"
#include "admin/registry.h"
#include "cluster.h"
#include "process.h"
#include "registry.h"

// ---- The call that fails ------------------------------------------------------------------------

static constexpr int MEMORY = -1;

static thread_local struct {
    bool armed = false;
    int error = 0;  // of the call, or MEMORY: then an allocation fails
    long left = 0;  // calls until then
    const char *failed = nullptr;
} fault;
static bool writes_only = false, unnoticed = false;

static bool fails_now(const char *name, bool allocation) {
    if (!fault.armed || allocation != (fault.error == MEMORY)) return false;
    if (writes_only && strstr(name, "write") == nullptr) return false;
    if (--fault.left != 0) return false;
    fault.failed = name;
    if (!allocation) errno = fault.error;
    return true;
}

template <typename function>
static function *libc(const char *name) {
    return reinterpret_cast<function *>(dlsym(RTLD_NEXT, name));
}

#define CALL(result, name, parameters, arguments)                     \
    extern "C" result name parameters {                               \
        static const auto real = libc<result parameters>(#name);      \
        return fails_now(#name, false) ? result(-1) : real arguments; \
    }
CALL(int, fstat, (int fd, struct stat *found), (fd, found))
CALL(int, lstat, (const char *path, struct stat *found), (path, found))
CALL(int, fstatat, (int fd, const char *path, struct stat *found, int flags),
     (fd, path, found, flags))
CALL(int, statx, (int fd, const char *path, int flags, unsigned mask, struct statx *found),
     (fd, path, flags, mask, found))
CALL(int, fstatfs, (int fd, struct statfs *found), (fd, found))
CALL(int, mkdir, (const char *path, mode_t mode), (path, mode))
CALL(int, chmod, (const char *path, mode_t mode), (path, mode))
CALL(int, fchmod, (int fd, mode_t mode), (fd, mode))
CALL(int, renameat, (int from, const char *name, int to, const char *other),
     (from, name, to, other))
CALL(int, unlinkat, (int fd, const char *name, int flags), (fd, name, flags))
CALL(int, flock, (int fd, int what), (fd, what))
CALL(int, ftruncate, (int fd, off_t size), (fd, size))
CALL(int, fallocate, (int fd, int mode, off_t at, off_t size), (fd, mode, at, size))
CALL(int, fsync, (int fd), (fd))
CALL(int, fdatasync, (int fd), (fd))
CALL(int, inotify_init1, (int flags), (flags))
CALL(int, inotify_add_watch, (int fd, const char *path, uint32_t mask), (fd, path, mask))
CALL(ssize_t, pread, (int fd, void *data, size_t size, off_t at), (fd, data, size, at))
CALL(ssize_t, writev, (int fd, const struct iovec *parts, int count), (fd, parts, count))

extern "C" ssize_t pwrite(int fd, const void *data, size_t size, off_t at) {
    static const auto real = libc<ssize_t(int, const void *, size_t, off_t)>("pwrite");
    if (!fails_now("pwrite", false)) return real(fd, data, size, at);
    return unnoticed ? static_cast<ssize_t>(size) : -1;
}

extern "C" void *mmap(void *at, size_t size, int rights, int flags, int fd, off_t offset) {
    static const auto real = libc<void *(void *, size_t, int, int, int, off_t)>("mmap");
    return fails_now("mmap", false) ? MAP_FAILED : real(at, size, rights, flags, fd, offset);
}

extern "C" int fcntl(int fd, int command, ...) {
    static const auto real = libc<int(int, int, ...)>("fcntl");
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    // The kernel cannot refuse to release a range.
    bool releases =
        command == F_OFD_SETLK && static_cast<struct flock *>(argument)->l_type == F_UNLCK;
    return !releases && fails_now("fcntl", false) ? -1 : real(fd, command, argument);
}

static int opened(const char *name, int directory, const char *path, int flags, mode_t mode) {
    static const auto real = libc<int(int, const char *, int, ...)>("openat");
    return fails_now(name, false) ? -1 : real(directory, path, flags, mode);
}

extern "C" int open(const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return opened("open", AT_FDCWD, path, flags, mode);
}

extern "C" int openat(int directory, const char *path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return opened("openat", directory, path, flags, mode);
}

// Bytes that nobody wrote are no sound pointers.
void *operator new(size_t size) {
    constexpr int UNWRITTEN = 0xA5;
    void *block = fails_now("new", true) ? nullptr : malloc(size);
    if (block == nullptr) throw std::bad_alloc();
    return memset(block, UNWRITTEN, malloc_usable_size(block));
}

void operator delete(void *block) noexcept {
    free(block);
}

void operator delete(void *block, size_t) noexcept {
    free(block);
}

namespace keyview::test {

// ---- What is under way --------------------------------------------------------------------------

// The versions of the tree that may be there.
struct life {
    int acknowledged = -1;  // -1: no registry yet
    std::vector<int> tried = {};
    std::string problem = {};

    template <typename work>
    void step(const work &body) {
        fault.armed = true;
        try {
            body();
        } catch (const std::exception &error) {
            fault.armed = false;
            if (*error.what() == '\0') problem += "a failure without a text; ";
        }
        fault.armed = false;
    }
    // Not without memory: the library of JSON allocates where it destroys.
    void change(int version) {
        tried.push_back(version);
        const auto body = [&] {
            apply(version, true);
            acknowledged = version;
        };
        if (fault.error == MEMORY) return body();
        step(body);
        if (acknowledged == version) tried.clear();
    }
};

static void choose(const std::string &directory) {
    require(keyview_host_set_registry(("lmdb:" + directory).c_str()) == 0, "URL");
}

static void fetch(context *by) {
    prsr_cfg *cfg = nullptr;
    context::expect(prsr_fetch_db_config(by->status, by->ctx, "Db1", &cfg), "fetch");
    (void)prsr_release_db_config(by->status, by->ctx, cfg);
}

static void read_all(const std::string &directory) {
    admin::registry keys = admin::registry::open("lmdb:" + directory);
    admin::key_list rows;
    (void)keys.read({{"DATABASE", reach::all_below}}, &rows);
    admin::held_lock shared = keys.lock("LKRT.DATABASE.DATABASES.db1", true, 0);
    (void)keys.lock_users({"LKRT.DATABASE.DATABASES.db1"});
    context by;
    fetch(&by);
    keys.history(0, [](admin::past_change &&) { return true; });
}

// Which database a set of one flag belongs to does not count: it stores what is there.
static void write_under_locks(const std::string &directory) {
    admin::registry keys = admin::registry::open("lmdb:" + directory);
    {
        context by;
        context::expect(prsr_set_db_enabled(by.status, by.ctx, "Db1", 1), "set");
    }
    admin::held_lock all = keys.lock_all({1, [](size_t) { return std::string("LKRT.a"); }}, 20);
    try {
        (void)keys.lock("LKRT.DATABASE.DATABASES.db1", false, 2);
    } catch (const std::exception &) {
        if (fault.failed == nullptr) return;  // the lock of all, as it must be
        throw;
    }
}

static life live(const std::string &directory) {
    life out;
    out.change(1);
    out.step([&] { read_all(directory); });
    out.step([&] { write_under_locks(directory); });
    out.change(2);
    out.change(3);
    out.change(13);  // its lists make the file grow
    out.step([] { (void)admin::diagnose_registry(); });
    if (fault.error != MEMORY) out.step([] { (void)admin::check_registry(); });
    return out;
}

// ---- Behind it ----------------------------------------------------------------------------------

static std::string found_behind(const life &before) {
    std::string problem = before.problem;
    if (before.acknowledged >= 0) {
        std::vector<int> may = before.tried;
        may.push_back(before.acknowledged);
        bool one = std::any_of(may.begin(), may.end(),
                               [](int version) { return difference_from(version).empty(); });
        if (!one) problem += "a wrong tree; ";
        if (!admin::check_registry().findings.empty()) problem += "findings; ";
    }
    apply(9, true);
    if (!difference_from(9).empty()) problem += "no next change; ";
    return problem;
}

enum { SOUND, WRONG, NOT_MET };

static int run_with(long nth, int error) {
    scratch_directory scratch;
    const std::string directory = scratch.path + "/registry";
    choose(directory);
    (void)keyview_host_set_trace("none");
    fault.error = error;
    fault.left = nth;
    const life before = live(directory);
    if (fault.failed == nullptr) return NOT_MET;
    std::string problem;
    try {
        problem = found_behind(before);
    } catch (const std::exception &thrown) {
        problem = std::string("it cannot be used: ") + thrown.what();
    }
    if (problem.empty()) return SOUND;
    std::cerr << fault.failed << ", call " << nth << ", error " << error << ": " << problem << "\n";
    return WRONG;
}

// A reader of a registry that is there, without memory at one point: its next reads are as ever.
static int read_with(const std::string &directory, long nth, int error) {
    choose(directory);
    fault.error = error;
    fault.left = nth;
    life reader;
    context by;  // of both fetches, as it keeps what it read
    reader.step([&] { fetch(&by); });
    reader.step([&] { read_all(directory); });
    if (fault.failed == nullptr) return NOT_MET;
    fetch(&by);
    read_all(directory);
    return reader.problem.empty() && difference_from(1).empty() ? SOUND : WRONG;
}

// Fails one call of every, until there is none; returns how many left something wrong.
template <typename work>
static int sweep(int error, long every, long first, work &&run) {
    long runs = 0;
    int wrong = 0;
    for (long nth = first;; nth += every) {
        child_process one([&](const meeting &) { return run(nth, error); });
        const int status = one.status();
        if (status == NOT_MET) break;
        ++runs;
        if (status != SOUND) ++wrong;
        if (status != SOUND && status != WRONG)
            std::cerr << "call " << nth << ", error " << error << " ended it: " << status << "\n";
    }
    std::cout << (error == MEMORY ? "no memory" : strerror(error)) << ": " << runs
              << " calls failed, " << wrong << " left something wrong\n";
    return wrong;
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    using namespace keyview::test;
    unnoticed = argc > 1 && argv[1] == std::string("--unnoticed");
    writes_only = unnoticed || (argc > 1 && argv[1] == std::string("--writes"));
    const long every = argc > 1 && !writes_only ? strtol(argv[1], nullptr, 10) : 1;
    const long first = argc > 2 ? strtol(argv[2], nullptr, 10) : 1;
    if (argc == 4 && argv[1] == std::string("--one"))
        return run_with(strtol(argv[2], nullptr, 10),
                        static_cast<int>(strtol(argv[3], nullptr, 10)));
    if (writes_only) return sweep(EIO, 1, 1, run_with) == 0 ? 0 : 1;
    int wrong = 0;
    for (const int error : {EIO, EACCES, EINTR, MEMORY})
        wrong += sweep(error, error == MEMORY ? every * 3 : every, first, run_with);
    scratch_directory scratch;
    const std::string directory = scratch.path + "/registry";
    child_process writer([&](const meeting &) {
        choose(directory);
        apply(1, true);
        return 0;
    });
    require(writer.status() == 0, "a registry to read");
    wrong +=
        sweep(MEMORY, 1, 1, [&](long nth, int error) { return read_with(directory, nth, error); });
    return wrong == 0 ? 0 : 1;
}
