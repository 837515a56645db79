// See endpoint.h.
#include "ctl/serve/endpoint.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <utility>

#include "ctl/output.h"
#include "ctl/terminal.h"

namespace keyview::ctl {

static constexpr const char *USUAL_ADDRESS = "127.0.0.1:8480";
static constexpr std::string_view UNIX = "unix:";
static constexpr int HANDED_OVER = 3;  // the first descriptor behind the standard ones
static constexpr int BACKLOG = 1024;

[[noreturn]] static void refuse_endpoint(exit_code code, const std::string &address,
                                         const std::string &why) {
    throw tool_error{code, "the server cannot listen", address, why,
                     "give --listen an address and a port such as 127.0.0.1:8480, or unix:PATH"};
}

[[noreturn]] static void refuse_endpoint(const std::string &address, int error) {
    const bool denied = error == EACCES || error == EPERM;
    refuse_endpoint(denied ? EXIT_DENIED : EXIT_USAGE, address, strerror(error));
}

static bool has_handed_over() {
    return environment("LISTEN_PID") == std::to_string(getpid()) &&
           environment("LISTEN_FDS") == "1";
}

endpoint::endpoint(const std::string &address) {
    const bool handed_over = address.empty() && has_handed_over();
    name_ = address.empty() ? USUAL_ADDRESS : address;
    if (handed_over) {
        fd_ = HANDED_OVER;
        name_ = "the socket of LISTEN_FDS";
    } else if (name_.compare(0, UNIX.size(), UNIX) == 0) {
        listen_on_path(name_.substr(UNIX.size()));
    } else {
        listen_on_address(name_);
    }
    inspect();
}

endpoint::~endpoint() {
    if (fd_ >= 0) close(fd_);
    if (!own_path_.empty()) (void)unlink(own_path_.c_str());
}

int endpoint::take() {
    return std::exchange(fd_, -1);
}

// A socket that nobody listens on any more is replaced, anything else is not. Only its owner may connect.
void endpoint::listen_on_path(const std::string &path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        refuse_endpoint(EXIT_USAGE, name_, "the path is empty or too long");
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const auto *target = reinterpret_cast<const sockaddr *>(&address);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct stat found = {};
    if (lstat(path.c_str(), &found) == 0 && S_ISSOCK(found.st_mode)) {
        if (connect(fd_, target, sizeof address) == 0)
            refuse_endpoint(EXIT_USAGE, name_, "another server listens there");
        if (errno == ECONNREFUSED) (void)unlink(path.c_str());
    }
    const mode_t mask = umask(0177);
    const int bound = bind(fd_, target, sizeof address), error = errno;
    (void)umask(mask);
    if (bound != 0) refuse_endpoint(name_, error);
    own_path_ = path;
    if (listen(fd_, BACKLOG) != 0) refuse_endpoint(name_, errno);
}

void endpoint::listen_on_address(const std::string &address) {
    const size_t colon = address.rfind(':');
    if (colon == address.npos) refuse_endpoint(EXIT_USAGE, address, "it has no port");
    std::string host = address.substr(0, colon);
    const char *port = address.c_str() + colon + 1, *end = address.c_str() + address.size();
    uint16_t number = 0;  // the resolver cuts a larger one
    auto [at, failed] = std::from_chars(port, end, number);
    if (failed != std::errc() || at != end)
        refuse_endpoint(EXIT_USAGE, address, "its port is no number from 0 to 65535");
    if (host.size() > 1 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints = {}, *found = nullptr;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    const int unknown = getaddrinfo(host.c_str(), port, &hints, &found);
    if (unknown != 0) refuse_endpoint(EXIT_USAGE, address, gai_strerror(unknown));
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    fd_ = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    (void)setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (fd_ < 0 || bind(fd_, found->ai_addr, found->ai_addrlen) != 0 || listen(fd_, BACKLOG) != 0)
        refuse_endpoint(address, errno);
}

// What the socket is, whoever made it.
void endpoint::inspect() {
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    int listens = 0;
    socklen_t listens_size = sizeof listens;
    const bool sound = getsockopt(fd_, SOL_SOCKET, SO_ACCEPTCONN, &listens, &listens_size) == 0 &&
                       listens != 0 &&
                       getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size) == 0;
    if (!sound) refuse_endpoint(EXIT_USAGE, name_, "it is no socket that listens");
    (void)fcntl(fd_, F_SETFD, FD_CLOEXEC);
    (void)fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
    unix_ = address.ss_family == AF_UNIX;
    local_ = unix_;
    if (unix_) return;
    char host[NI_MAXHOST], port[NI_MAXSERV];
    if (getnameinfo(reinterpret_cast<sockaddr *>(&address), size, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return;
    if (address.ss_family == AF_INET) {
        const auto *v4 = reinterpret_cast<const sockaddr_in *>(&address);
        local_ = (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
        name_ = std::string(host) + ":" + port;
    } else if (address.ss_family == AF_INET6) {
        const auto *v6 = reinterpret_cast<const sockaddr_in6 *>(&address);
        local_ = IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr);
        name_ = "[" + std::string(host) + "]:" + port;
    }
}

}  // namespace keyview::ctl
