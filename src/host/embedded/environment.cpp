// LMDB environments and transactions.
#include "host/embedded/environment.h"

#include <fcntl.h>

#include <cerrno>
#include <map>
#include <utility>

#include "host/registry/store.h"
#include "host/support/deadline.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

static constexpr unsigned MAX_READERS = 1022;
static constexpr uint32_t MAP_WAIT_MS = 60000;

namespace {

// The map is too small: by our own writing, or because another process wrote beyond it.
struct map_full {};
struct map_outgrown {};

// A write transaction that is undone unless it was committed.
struct writing {
    writing() = default;
    writing(const writing &) = delete;
    writing &operator=(const writing &) = delete;
    ~writing() {
        if (txn != nullptr) mdb_txn_abort(txn);
    }

    MDB_txn *txn = nullptr;
};

}  // namespace

static failure kind_of(int rc) {
    switch (rc) {
        case EACCES:
        case EPERM:
        case EROFS:
            return failure::denied;
        case MDB_CORRUPTED:
        case MDB_PAGE_NOTFOUND:
        case MDB_INVALID:
        case MDB_VERSION_MISMATCH:
        case MDB_INCOMPATIBLE:
            return failure::content;
        case ENOMEM:
            return failure::internal;
        default:
            return failure::registry;
    }
}

static const char *advice(int rc) {
    switch (rc) {
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
        case EIO:  // LMDB's word for a write that was cut short
            return "; nothing was changed: the disk may be full or failing";
        case MDB_PANIC:
            return "; restart the program";
        case MDB_READERS_FULL:
            return ": too many programs read at the same time";
        case MDB_CORRUPTED:
        case MDB_PAGE_NOTFOUND:
        case MDB_INVALID:
            return "; the file is damaged: restore it from a saved cluster document";
        default:
            return "";
    }
}

void environment::check(int rc, const char *what) const {
    if (rc == MDB_SUCCESS) return;
    if (rc == MDB_MAP_FULL) throw map_full();
    if (rc == MDB_MAP_RESIZED) throw map_outgrown();
    throw host_error(kind_of(rc), "the registry in '" + path_ + "' failed (" + what +
                                      "): " + mdb_strerror(rc) + advice(rc));
}

environment::environment(const std::string &path) : path_(path) {
    check(mdb_env_create(&env_), "mdb_env_create");
    try {
        check(mdb_env_set_maxreaders(env_, MAX_READERS), "mdb_env_set_maxreaders");
        check(mdb_env_open(env_, path_.c_str(), MDB_NOTLS, 0600), "mdb_env_open");
        int fd = -1;
        check(mdb_env_get_fd(env_, &fd), "mdb_env_get_fd");
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) check(errno, "FD_CLOEXEC");
        check(mdb_reader_check(env_, nullptr), "mdb_reader_check");
        idle_.reserve(1);
        idle_.push_back(begin_read());
        MDB_dbi keys = 0;
        check(mdb_dbi_open(idle_.back().txn, nullptr, 0, &keys), "mdb_dbi_open");
        mdb_txn_reset(idle_.back().txn);
    } catch (...) {
        close();
        throw;
    }
}

environment::~environment() {
    close();
}

void environment::close() noexcept {
    for (lmdb_reader &reader : idle_) {
        mdb_cursor_close(reader.cursor);
        mdb_txn_abort(reader.txn);
    }
    mdb_env_close(env_);
}

std::shared_lock<std::shared_mutex> environment::keep_map_in_place() {
    if (resize_waits_.load(std::memory_order_relaxed)) std::lock_guard let_go_first(resizing_);
    return std::shared_lock(map_);
}

// factor 0 takes over what other processes made of the map.
void environment::resize_map(size_t factor) {
    let_go_of_moments();
    std::lock_guard turn(resizing_);
    resize_waits_.store(true);
    deadline wait(MAP_WAIT_MS);
    std::unique_lock moving(map_, std::try_to_lock);
    while (!moving.owns_lock() && wait.pause())
        (void)moving.try_lock();
    resize_waits_.store(false);
    if (!moving.owns_lock()) {
        throw host_error(failure::registry,
                         "the registry in '" + path_ + "' cannot grow: a reader does not end");
    }
    MDB_envinfo info = {};
    check(mdb_env_info(env_, &info), "mdb_env_info");
    check(mdb_env_set_mapsize(env_, info.me_mapsize * factor), "mdb_env_set_mapsize");
}

// ---- Reading ------------------------------------------------------------------------------------

void environment::start_reader(lmdb_reader *reader) {
    if (reader->txn != nullptr) return check(mdb_txn_renew(reader->txn), "mdb_txn_renew");
    int rc = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader->txn);
    if (rc == MDB_READERS_FULL) {
        check(mdb_reader_check(env_, nullptr), "mdb_reader_check");
        rc = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader->txn);
    }
    check(rc, "mdb_txn_begin");
}

lmdb_reader environment::begin_read() {
    lmdb_reader reader;
    {
        std::lock_guard guard(idle_mutex_);
        if (!idle_.empty()) {
            reader = idle_.back();
            idle_.pop_back();
        }
    }
    try {
        start_reader(&reader);
        int rc = reader.cursor == nullptr ? mdb_cursor_open(reader.txn, KEYS, &reader.cursor)
                                          : mdb_cursor_renew(reader.txn, reader.cursor);
        check(rc, "mdb_cursor_open");
    } catch (...) {
        if (reader.cursor != nullptr) mdb_cursor_close(reader.cursor);
        if (reader.txn != nullptr) mdb_txn_abort(reader.txn);
        throw;
    }
    return reader;
}

void environment::end_read(lmdb_reader reader) noexcept {
    mdb_txn_reset(reader.txn);
    std::lock_guard guard(idle_mutex_);
    try {
        idle_.push_back(reader);
    } catch (const std::bad_alloc &) {
        mdb_cursor_close(reader.cursor);
        mdb_txn_abort(reader.txn);
    }
}

environment::reading::reading(environment *env) : env_(env) {
    for (;;) {
        in_place_ = env->keep_map_in_place();
        try {
            reader_ = env->begin_read();
            return;
        } catch (const map_outgrown &) {
            in_place_.unlock();
            env->resize_map(0);
        }
    }
}

// ---- Writing ------------------------------------------------------------------------------------

void environment::write_once(const std::function<bool(MDB_txn *)> &work) {
    std::shared_lock in_place = keep_map_in_place();
    writing current;
    check(mdb_txn_begin(env_, nullptr, 0, &current.txn), "mdb_txn_begin");
    if (!work(current.txn)) return;
    // A commit ends the transaction, whatever comes of it.
    check(mdb_txn_commit(std::exchange(current.txn, nullptr)), "mdb_txn_commit");
}

void environment::write(const std::function<bool(MDB_txn *)> &work) {
    for (;;) {
        try {
            return write_once(work);
        } catch (const map_full &) {
            resize_map(2);
        } catch (const map_outgrown &) {
            resize_map(0);
        }
    }
}

// ---- Sharing ------------------------------------------------------------------------------------

struct shared_environment {
    uint64_t generation;
    size_t users;
    std::unique_ptr<environment> env;
};

// Guarded by fork_mutex().
static std::map<file_id, shared_environment> &shared_environments() {
    static auto &all = *new std::map<file_id, shared_environment>;
    return all;
}

environment_use::environment_use(const registry_directory &directory)
    : id_(directory.data_id()), generation_(fork_generation()) {
    // Of ancestors: never closed, which would free the readers of the ancestor, and kept reachable
    // for leak checkers.
    static auto &ancestors = *new std::vector<environment *>;

    std::lock_guard guard(fork_mutex());
    shared_environment &shared = shared_environments()[id_];
    if (shared.env == nullptr || shared.generation != generation_) {
        auto env = std::make_unique<environment>(directory.path());
        ancestors.push_back(shared.env.release());
        shared = {generation_, 0, std::move(env)};
    }
    ++shared.users;
    env_ = shared.env.get();
}

environment_use::~environment_use() {
    if (generation_ != fork_generation()) return;
    std::lock_guard guard(fork_mutex());
    auto found = shared_environments().find(id_);
    if (--found->second.users == 0) shared_environments().erase(found);
}

}  // namespace keyview::host
