// Where the server listens: an address, a Unix socket, or a socket that systemd hands over.
#pragma once

#include <string>

namespace keyview::ctl {

class endpoint {
  public:
    // "127.0.0.1:8480", "[::1]:8480", "unix:/run/keyview/serve"; "" is the socket that was handed over, else
    // the usual address. Throws a tool_error.
    explicit endpoint(const std::string &address);
    endpoint(const endpoint &) = delete;
    endpoint &operator=(const endpoint &) = delete;
    ~endpoint();

    int fd() const { return fd_; }
    int take();  // who takes it closes it

    // Whether none but users of this machine can reach it; whether it is a Unix socket.
    bool is_local() const { return local_; }
    bool is_unix() const { return unix_; }
    // Such as "127.0.0.1:8480".
    const std::string &name() const { return name_; }

  private:
    void listen_on_path(const std::string &path);
    void listen_on_address(const std::string &address);
    void inspect();

    int fd_ = -1;
    std::string own_path_;  // removed at the end
    std::string name_;
    bool local_ = false, unix_ = false;
};

}  // namespace keyview::ctl
