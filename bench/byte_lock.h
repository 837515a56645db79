// The bare system calls below a lock: a byte of an open file description.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "bench/failure.h"

namespace keyview::bench {

class byte_lock {
  public:
    explicit byte_lock(const std::string &file)
        : fd_(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        require_call(fd_ >= 0, "open");
    }
    byte_lock(const byte_lock &) = delete;
    byte_lock &operator=(const byte_lock &) = delete;
    ~byte_lock() { close(fd_); }

    void take_and_release() const {
        call(F_OFD_SETLK, F_RDLCK, 4711);
        call(F_OFD_SETLK, F_UNLCK, 4711);
    }

    // Whether another byte could be taken.
    void query() const { call(F_OFD_GETLK, F_RDLCK, 4712); }

  private:
    void call(int command, short type, off_t byte) const {
        struct flock range = {};
        range.l_type = type;
        range.l_whence = SEEK_SET;
        range.l_start = byte;
        range.l_len = 1;
        require_call(fcntl(fd_, command, &range) == 0, "fcntl");
    }

    int fd_;
};

}  // namespace keyview::bench
