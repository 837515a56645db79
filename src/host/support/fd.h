// A file descriptor with an owner.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace keyview::host {

// Before a file is opened for longer than a call: in a process without standard descriptors it would
// become one, and what the program prints would go into the registry. Printing fails instead.
inline void occupy_standard_descriptors() noexcept {
    constexpr int FLAGS[] = {O_WRONLY, O_RDONLY, O_RDONLY};
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
        if (fcntl(fd, F_GETFD) < 0) (void)::open("/dev/null", FLAGS[fd] | O_CLOEXEC);
}

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
