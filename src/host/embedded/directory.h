// The directory of an embedded registry: found or made, and refused if it is not safe.
//
//     data.mdb, lock.mdb    LMDB's
//     locks                 the byte ranges of the named locks, and the shared words
//     format                "keyview" and the version of all this; there is none for version 1
//
// The directory is made with mode 0700 and files with 0600, whatever the umask. If an
// administrator gives the directory to a group, set-group-ID included (chmod g+rwxs), files get the
// group's rights to it. Only open_mode::create makes a data.mdb, and only if none exists: an empty
// one is damaged.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "host/registry/backend.h"
#include "host/support/error.h"
#include "host/support/fd.h"

namespace keyview::host {

// Device and inode.
using file_id = std::pair<dev_t, ino_t>;

struct file_status {
    file_id id;
    size_t size = 0;
};

// Reads the status of a file of a directory, or with "" of an open file; false if that failed, with
// errno. Does not query timestamps: once read, the kernel must update them at the next write, and
// every later fdatasync would flush the inode as well.
[[nodiscard]] bool read_status(int fd, const char *name, file_status *out) noexcept;

// Makes a file at least so long, with zeros at its end: so a full disk is met here and not by a
// later commit, and a commit changes nothing but bytes. Only for the holder of the write lock:
// nobody else makes it longer meanwhile. Returns 0 or errno.
[[nodiscard]] int lengthen(int fd, size_t size);

class registry_directory : public std::enable_shared_from_this<registry_directory> {
  public:
    // Throws failure::not_found, ::denied or ::usage with a text that names the remedy.
    registry_directory(const std::string &path, open_mode mode);

    const std::string &path() const { return path_; }  // absolute
    int fd() const { return fd_.get(); }               // good in a forked child, too
    file_id data_id() const { return ids_[0]; }
    file_id lock_id() const { return ids_[2]; }

    // Throws failure::registry if the directory was replaced since the opening, or a file replaced or
    // emptied: other processes then use another registry, or the same one without our locks.
    void require_in_place() const;

    // Which files have more rights than new ones get, and the remedy; "" if none has.
    std::string excess_rights() const;

    // Opens the data file for access without LMDB.
    unique_fd open_data() const;

    // For a call on the lock file that failed with errno.
    host_error lock_file_failed(const char *action) const;

    static constexpr const char *LOCK_FILE = "locks";

  private:
    void make(size_t file, open_mode mode);

    std::string path_, named_;  // the same, to what a link at its end names
    unique_fd fd_;
    file_id id_ = {};
    mode_t file_mode_;            // of new files
    std::array<file_id, 3> ids_;  // of data.mdb, lock.mdb, locks
};

// The name of a file system that is shared with other machines; null for others. type is that of
// statfs.
const char *network_file_system(int64_t type) noexcept;

}  // namespace keyview::host
