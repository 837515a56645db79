// LMDB environments and transactions.
#include "host/embedded/environment.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>

#include "host/embedded/lmdb_check.h"
#include "host/embedded/pages/page_walk.h"
#include "host/registry/store.h"
#include "host/support/deadline.h"
#include "host/support/error.h"
#include "host/support/fork.h"

namespace keyview::host {

static constexpr unsigned MAX_READERS = 1022;
static constexpr uint32_t MAP_WAIT_MS = 60000;
static constexpr uint32_t STATE_WAIT_MS = 5000;
static constexpr int64_t INSPECT_EVERY_MS = 100;
static constexpr page_number MOST_PAGES_WALKED = 1024;

namespace {

// The map is too small: by our own writing, or because another process wrote beyond it.
struct map_full {};
struct map_outgrown {};

}  // namespace

static void close_reader(const lmdb_reader &reader) noexcept {
    if (reader.cursor != nullptr) mdb_cursor_close(reader.cursor);
    if (reader.txn != nullptr) mdb_txn_abort(reader.txn);
}

static constexpr const char *DISK = "; nothing was changed: the disk may be full or failing";

// EIO is LMDB's code for a write that was cut short.
static constexpr struct known_code {
    int rc;
    failure kind;
    const char *advice;
} CODES[] = {
    {EACCES, failure::denied, ""},
    {EPERM, failure::denied, ""},
    {EROFS, failure::denied, ""},
    {ENOMEM, failure::internal, ""},
    {ENOSPC, failure::registry, DISK},
    {EDQUOT, failure::registry, DISK},
    {EFBIG, failure::registry, DISK},
    {EIO, failure::registry, DISK},
    {MDB_PANIC, failure::registry, "; restart the program"},
    {MDB_READERS_FULL, failure::registry, ": too many programs read at the same time"},
    {MDB_CORRUPTED, failure::content, RESTORE},
    {MDB_PAGE_NOTFOUND, failure::content, RESTORE},
    {MDB_INVALID, failure::content, RESTORE},
    {MDB_VERSION_MISMATCH, failure::content, ""},
    {MDB_INCOMPATIBLE, failure::content, ""},
};

void environment::check(int rc, const char *what) const {
    if (rc == MDB_SUCCESS) return;
    if (rc == MDB_MAP_FULL) throw map_full();
    if (rc == MDB_MAP_RESIZED) throw map_outgrown();
    known_code known = {rc, failure::registry, ""};
    for (const known_code &row : CODES)
        if (row.rc == rc) known = row;
    throw host_error(known.kind, "the registry in '" + path_ + "' failed (" + what +
                                     "): " + mdb_strerror(rc) + known.advice);
}

void environment::refuse(const std::string &subject, const std::string &reason) const {
    throw host_error(failure::content, "the registry in '" + path_ + "' is damaged: " + subject +
                                           " " + reason + RESTORE);
}

environment::environment(const registry_directory &directory)
    : directory_(directory.shared_from_this()), path_(directory_->path()) {
    deadline wait(STATE_WAIT_MS);
    while (!try_open()) {
        if (!wait.pause()) throw too_fast();
    }
}

host_error environment::too_fast() const {
    return host_error(failure::registry,
                      "the registry in '" + path_ + "' changes too fast to be opened");
}

// False if a writer made the map larger meanwhile.
bool environment::try_open() {
    std::optional<file_head> head = require_sound_head();
    check(mdb_env_create(&env_), "mdb_env_create");
    try {
        open(head);
        return true;
    } catch (const map_outgrown &) {
        close();
        return false;
    } catch (...) {
        close();
        throw;
    }
}

void environment::open(const std::optional<file_head> &head) {
    check(mdb_env_set_maxreaders(env_, MAX_READERS), "mdb_env_set_maxreaders");
    {
        std::lock_guard guard(fork_mutex());  // no child inherits the file without FD_CLOEXEC
        check(mdb_env_open(env_, path_.c_str(), MDB_NOTLS, 0600), "mdb_env_open");
        check(mdb_env_get_fd(env_, &data_fd_), "mdb_env_get_fd");
        if (fcntl(data_fd_, F_SETFD, FD_CLOEXEC) != 0) check(errno, "FD_CLOEXEC");
    }
    require_files();
    check(mdb_reader_check(env_, nullptr), "mdb_reader_check");
    idle_.reserve(1);
    idle_.push_back(begin_read());
    MDB_dbi keys = 0;
    check(mdb_dbi_open(idle_.back().txn, nullptr, 0, &keys), "mdb_dbi_open");
    if (head) require_sound_pages(idle_.back().txn, *head);
    mdb_txn_reset(idle_.back().txn);
}

environment::~environment() {
    close();
}

// ---- Files --------------------------------------------------------------------------------------

// Before LMDB opens the file: it trusts any head. The file of a copy ends with the last page in
// use. Unlike ftruncate, fallocate never shortens what another process made longer meanwhile.
std::optional<file_head> environment::require_sound_head() {
    unique_fd data = directory_->open_data();
    if (!foreign_format(data.get()).empty()) return std::nullopt;
    file_head head;
    (void)read_head(data.get(), &head,
                    [this](auto &subject, auto &reason) { refuse(subject, reason); });
    file_status found;
    size_t size = head.newest().map_size;
    bool whole = read_status(data.get(), "", &found) && found.size >= size;
    if (!whole && fallocate(data.get(), 0, 0, static_cast<off_t>(size)) != 0)
        check(errno, "fallocate");
    return head;
}

// Skips a large file, whose walk would take longer than the work of most programs: there only the
// checksums of rows protect a reader, until the registry is checked.
//
// The reader keeps writers off the pages of its state. They may have overwritten its meta before it
// was read; then the reader starts anew.
void environment::require_sound_pages(MDB_txn *reader, file_head head) {
    auto refuse_it = [this](auto &subject, auto &reason) { refuse(subject, reason); };
    deadline wait(STATE_WAIT_MS);
    do {
        for (const meta &state : head.metas) {
            if (state.commit != mdb_txn_id(reader)) continue;
            if (state.last_page > MOST_PAGES_WALKED) return;
            return require_all_found(data_fd_, state, refuse_it);
        }
        mdb_txn_reset(reader);
        check(mdb_txn_renew(reader), "mdb_txn_renew");
        (void)read_head(data_fd_, &head, refuse_it);
    } while (wait.pause());
    throw too_fast();
}

void environment::require_all_pages() const {
    auto refuse_it = [this](auto &subject, auto &reason) { refuse(subject, reason); };
    file_head head;
    (void)read_head(data_fd_, &head, refuse_it);
    walk_pages(data_fd_, head.newest(), refuse_it, [](auto, auto) {});
}

// The map must not move meanwhile.
void environment::require_files() {
    directory_->require_in_place();
    MDB_envinfo info = {};
    file_status found;
    check(mdb_env_info(env_, &info), "mdb_env_info");
    if (!read_status(data_fd_, "", &found)) check(errno, "statx");
    if (found.size >= info.me_mapsize) return;
    refuse("data.mdb", "was cut short, to " + std::to_string(found.size) + " bytes of " +
                           std::to_string(info.me_mapsize));
}

// Readers are frequent, and each inspection costs system calls.
void environment::require_files_now_and_then() {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    int64_t now_ms = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    if (now_ms < next_inspection_ms_.load(std::memory_order_relaxed)) return;
    require_files();
    next_inspection_ms_.store(now_ms + INSPECT_EVERY_MS, std::memory_order_relaxed);
}

bool environment::has_room(size_t bytes) const {
    MDB_envinfo info = {};
    MDB_stat pages = {};
    check(mdb_env_info(env_, &info), "mdb_env_info");
    check(mdb_env_stat(env_, &pages), "mdb_env_stat");
    return (info.me_last_pgno + 1) * pages.ms_psize + bytes <= info.me_mapsize;
}

void environment::close() noexcept {
    for (const lmdb_reader &reader : idle_)
        close_reader(reader);
    idle_.clear();
    mdb_env_close(env_);
}

std::shared_lock<map_mutex> environment::keep_map_in_place() {
    if (resize_waits_.load(std::memory_order_relaxed)) {
        release_moments();
        std::lock_guard let_it_go_first(resizing_);
    }
    return std::shared_lock(map_);
}

// factor 0 adopts the map size that another process set. Any other one enlarges the map for a
// writer, as often as needed for the room, the file first: once a commit states the map size, the
// file must be as long.
void environment::resize_map(size_t factor, size_t room) {
    release_moments();
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
    size_t size = info.me_mapsize * factor;
    while (size > 0 && size < room)
        size *= factor;
    if (size > 0) check(lengthen(data_fd_, size), "ftruncate");
    check(mdb_env_set_mapsize(env_, size), "mdb_env_set_mapsize");
    require_files();
}

// ---- Reading ------------------------------------------------------------------------------------

void environment::start_reader(lmdb_reader *reader) {
    if (reader->txn != nullptr) return check(mdb_txn_renew(reader->txn), "mdb_txn_renew");
    // LMDB identifies a process by a lock at its process number.
    int rc = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader->txn);
    if (rc == MDB_READERS_FULL) {
        check(mdb_reader_check(env_, nullptr), "mdb_reader_check");
        rc = mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader->txn);
    }
    if (rc == EAGAIN || rc == EACCES) {
        throw host_error(failure::registry,
                         "the registry in '" + path_ +
                             "' cannot be used: a process with the same number in another pid "
                             "namespace (a container) uses it; run both in one pid namespace");
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
        close_reader(reader);
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
        close_reader(reader);
    }
}

environment::reading::reading(environment *env) : env_(env) {
    for (;;) {
        in_place_ = env->keep_map_in_place();
        env->require_files_now_and_then();
        try {
            reader_ = env->begin_read();
            return;
        } catch (const map_outgrown &) {
            in_place_.unlock();
            env->adopt_map();
        }
    }
}

// ---- Writing ------------------------------------------------------------------------------------

void environment::write_once(const std::function<bool(MDB_txn *)> &work) {
    std::shared_lock in_place = keep_map_in_place();
    require_files();
    MDB_txn *begun = nullptr;
    check(mdb_txn_begin(env_, nullptr, 0, &begun), "mdb_txn_begin");
    std::unique_ptr<MDB_txn, decltype(&mdb_txn_abort)> current(begun, &mdb_txn_abort);
    if (!work(begun)) return;
    const replaced_meta replaced(data_fd_, mdb_txn_id(begun));
    // A commit ends the transaction, whatever comes of it.
    int rc = mdb_txn_commit(current.release());
    if (rc != MDB_SUCCESS) replaced.restore();
    check(rc, "mdb_txn_commit");
}

void environment::write(const std::function<bool(MDB_txn *)> &work, size_t room) {
    for (;;) {
        try {
            return write_once(work);
        } catch (const map_full &) {
            // The pages that a killed reader kept may be room enough.
            int cleared = 0;
            check(mdb_reader_check(env_, &cleared), "mdb_reader_check");
            if (cleared == 0) resize_map(2, room);
        } catch (const map_outgrown &) {
            adopt_map();
        }
    }
}

}  // namespace keyview::host
