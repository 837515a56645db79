// A file descriptor with an owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace keyview::host {

class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd &operator=(unique_fd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~unique_fd() {
        if (fd_ >= 0) close(fd_);
    }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

}  // namespace keyview::host
