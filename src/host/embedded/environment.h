// One LMDB environment and its transactions.
//
// A file may be open only once in a process, and an environment must not be used in the child of a
// fork. So a process has one store of a registry (embedded.cpp), and the child opens an environment
// of its own for it.
//
// The data file is as long as its map, so that no page of the map lies behind the file's end, where
// to read it would end the process. A file that is shorter was cut short and is refused.
#pragma once

#include <lmdb.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/embedded/directory.h"
#include "host/embedded/pages/file_head.h"
#include "host/support/error.h"

namespace keyview::host {

// A shared mutex that a thread may lock shared several times at once: a holder of one moment of the
// tree may start a further one. The exclusive lock is only tried, and held for a short time.
class map_mutex {
  public:
    void lock_shared() {
        for (int32_t uses = uses_.load(std::memory_order_relaxed);;) {
            if (uses == MOVING) {
                std::this_thread::yield();
                uses = uses_.load(std::memory_order_relaxed);
            } else if (uses_.compare_exchange_weak(uses, uses + 1, std::memory_order_acquire)) {
                return;
            }
        }
    }
    void unlock_shared() { uses_.fetch_sub(1, std::memory_order_release); }
    bool try_lock() {
        int32_t unused = 0;
        return uses_.compare_exchange_strong(unused, MOVING, std::memory_order_acquire);
    }
    void unlock() { uses_.store(0, std::memory_order_release); }

  private:
    static constexpr int32_t MOVING = -1;
    std::atomic<int32_t> uses_{0};
};

// A read transaction with its cursor. It keeps its slot among LMDB's readers between two uses.
struct lmdb_reader {
    MDB_txn *txn = nullptr;
    MDB_cursor *cursor = nullptr;
};

class environment {
  public:
    class reading;

    // Opens the registry of a directory. Throws failure::content if the file is damaged so that
    // keys could be hidden or LMDB led astray; rows by themselves are checked when they are read.
    explicit environment(const registry_directory &directory);
    ~environment();  // only in the process that opened it

    // Runs work in a write transaction, which is committed if work returns true. If the map had to
    // grow, work runs again, in a new transaction; it then grows to room bytes at least. The caller
    // orders the writers of all processes.
    void write(const std::function<bool(MDB_txn *)> &work, size_t room = 0);

    // For a writer that met a damaged row: throws failure::content unless the pages of the latest
    // commit are sound. A large file is not walked when it is opened.
    void require_all_pages() const;

    // Whether the map has so many bytes behind the pages of the latest commit.
    bool has_room(size_t bytes) const;

    // Throws unless rc is 0.
    void check(int rc, const char *what) const;

    static constexpr MDB_dbi KEYS = 1;  // the unnamed database

  private:
    bool try_open();
    void open(const std::optional<file_head> &head);
    void close() noexcept;
    std::optional<file_head> require_sound_head();
    void require_sound_pages(MDB_txn *reader, file_head head);
    void require_files();
    void require_files_now_and_then();
    host_error too_fast() const;
    [[noreturn]] void refuse(const std::string &subject, const std::string &reason) const;
    std::shared_lock<map_mutex> keep_map_in_place();
    void adopt_map() { resize_map(0, 0); }
    void resize_map(size_t factor, size_t room);
    lmdb_reader begin_read();
    void start_reader(lmdb_reader *reader);
    void end_read(lmdb_reader reader) noexcept;
    void write_once(const std::function<bool(MDB_txn *)> &work);

    std::shared_ptr<const registry_directory> directory_;
    const std::string &path_;
    MDB_env *env_ = nullptr;
    int data_fd_ = -1;                            // LMDB's
    std::atomic<int64_t> next_inspection_ms_{0};  // when the files are inspected again

    // The map moves only while no transaction is under way, and new ones let it go first.
    map_mutex map_;
    std::mutex resizing_;
    std::atomic<bool> resize_waits_{false};

    std::mutex idle_mutex_;
    std::vector<lmdb_reader> idle_;
};

// A read transaction: what is seen through it shows one moment, and ends with it.
class environment::reading {
  public:
    explicit reading(environment *env);
    ~reading() { env_->end_read(reader_); }

    MDB_txn *txn() const { return reader_.txn; }
    MDB_cursor *cursor() const { return reader_.cursor; }

  private:
    environment *env_;
    std::shared_lock<map_mutex> in_place_;
    lmdb_reader reader_;
};

}  // namespace keyview::host
