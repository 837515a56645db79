// A real etcd cluster on this machine while the object lives: its members are child processes on free
// ports, with their files in a temporary directory.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "../host/scratch.h"

namespace keyview::test {

class etcd_members {
  public:
    // A member with an invalid certificate never gets further than to listen.
    enum class wait_for { leader, port };

    // more: further arguments for etcd.
    explicit etcd_members(size_t count = 3, std::vector<std::string> more = {},
                          const std::string &scheme = "http", wait_for what = wait_for::leader);
    etcd_members(const etcd_members &) = delete;
    etcd_members &operator=(const etcd_members &) = delete;
    ~etcd_members();

    void kill(size_t i);
    void start(size_t i);
    void stop(size_t i) const;  // it is silent until resume()
    void resume(size_t i) const;
    void await_ready(size_t i) const;  // until it knows a leader

    size_t count() const { return members_.size(); }
    size_t leader() const;
    const std::string &address(size_t i) const { return members_[i].client; }  // host:port
    std::string url(const std::string &prefix = "/test") const;
    const std::string &directory() const { return scratch_.path; }

  private:
    struct member {
        std::string client;
        std::string peer;
        pid_t pid = -1;
    };

    bool listens(size_t i) const;

    scratch_directory scratch_;
    std::vector<std::string> more_;
    std::string scheme_;
    std::vector<member> members_;
};

// Turns authentication on, with LOGIN_VARIABLE set to a login of root while the object lives.
struct required_login {
    explicit required_login(const etcd_members &members);
    required_login(const required_login &) = delete;
    required_login &operator=(const required_login &) = delete;
    ~required_login();
};

// Arguments for members whose tokens expire after two seconds, used or not. Writes keys to the directory.
std::vector<std::string> short_lived_tokens(const std::string &directory);

}  // namespace keyview::test
