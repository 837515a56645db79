// Starts and ends the members of a cluster.
#include "members.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "cluster/connection.h"

namespace keyview::test {

static constexpr int READY_S = 30;

// Members listen below the range of ephemeral ports.
static uint16_t free_port() {
    static uint16_t next = static_cast<uint16_t>(12000 + getpid() * 160 % 20000);
    for (;; ++next) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(next);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bool is_free = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
        close(fd);
        if (is_free) return next++;
    }
}

etcd_members::etcd_members(size_t count, std::vector<std::string> more, const std::string &scheme,
                           wait_for what)
    : more_(std::move(more)), scheme_(scheme) {
    for (size_t i = 0; i < count; ++i) {
        members_.push_back({"127.0.0.1:" + std::to_string(free_port()),
                            "127.0.0.1:" + std::to_string(free_port()), -1});
    }
    for (size_t i = 0; i < count; ++i)
        start(i);
    for (size_t i = 0; i < count; ++i) {
        if (what == wait_for::leader) await_ready(i);
        for (int waited_ms = 0; !listens(i); waited_ms += 10, usleep(10000)) {
            if (waited_ms > READY_S * 1000)
                throw std::runtime_error("no process, or another one, listens");
        }
    }
}

etcd_members::~etcd_members() {
    for (size_t i = 0; i < members_.size(); ++i)
        kill(i);
}

void etcd_members::kill(size_t i) {
    member &one = members_[i];
    if (one.pid <= 0) return;
    ::kill(one.pid, SIGKILL);
    waitpid(one.pid, nullptr, 0);
    one.pid = -1;
}

void etcd_members::start(size_t i) {
    std::string all;
    for (size_t n = 0; n < members_.size(); ++n)
        all += (n > 0 ? ",m" : "m") + std::to_string(n) + "=http://" + members_[n].peer;
    const member &one = members_[i];
    std::string number = std::to_string(i);
    std::vector<std::string> words = {"etcd",
                                      "--name=m" + number,
                                      "--data-dir=" + scratch_.path + "/m" + number,
                                      "--listen-client-urls=" + scheme_ + "://" + one.client,
                                      "--advertise-client-urls=" + scheme_ + "://" + one.client,
                                      "--listen-peer-urls=http://" + one.peer,
                                      "--initial-advertise-peer-urls=http://" + one.peer,
                                      "--initial-cluster=" + all,
                                      "--initial-cluster-token=" + scratch_.path,
                                      "--logger=zap",
                                      "--log-level=error"};
    words.insert(words.end(), more_.begin(), more_.end());
    std::vector<char *> arguments;
    for (std::string &word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::string log = scratch_.path + "/m" + number + ".log";
    pid_t parent = getpid();
    members_[i].pid = fork();
    if (members_[i].pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
    int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(fd, 1);
    dup2(fd, 2);
    execvp("etcd", arguments.data());
    _exit(127);
}

// On a busy machine the member goes on for a while: until the thread that takes the signal runs.
void etcd_members::stop(size_t i) const {
    ::kill(members_[i].pid, SIGSTOP);
    waitpid(members_[i].pid, nullptr, WUNTRACED);
}

void etcd_members::resume(size_t i) const {
    ::kill(members_[i].pid, SIGCONT);
}

// Whether the socket that listens on the member's port is the member's own.
bool etcd_members::listens(size_t i) const {
    const std::string &client = members_[i].client;
    char port[8];
    (void)snprintf(port, sizeof(port), ":%04X", std::stoi(client.substr(client.find(':') + 1)));
    std::ifstream sockets("/proc/net/tcp");
    for (std::string line; std::getline(sockets, line);) {
        std::istringstream words(line);
        std::string number, local, remote, state, skipped, inode;
        words >> number >> local >> remote >> state;
        if (state != "0A" || local.find(port) == local.npos) continue;
        for (int n = 0; n < 5; ++n)
            words >> skipped;
        words >> inode;
        std::string fds = "/proc/" + std::to_string(members_[i].pid) + "/fd";
        for (const auto &fd : std::filesystem::directory_iterator(fds)) {
            std::error_code none;
            if (std::filesystem::read_symlink(fd, none) == "socket:[" + inode + "]") return true;
        }
    }
    return false;
}

static host::cluster_settings settings_for(const std::string &url) {
    host::cluster_settings settings = host::settings_of(url);
    settings.answer_wait = std::chrono::seconds(2);
    return settings;
}

void etcd_members::await_ready(size_t i) const {
    host::connection calls(settings_for(url()));
    auto end = host::steady::now() + std::chrono::seconds(READY_S);
    for (std::string why; host::steady::now() < end; usleep(20000)) {
        try {
            auto at_most = host::steady::now() + std::chrono::milliseconds(500);
            if (calls.status_of(i, at_most).leader() != 0) return;
        } catch (const host::host_error &) {
            if (members_[i].pid <= 0 || waitpid(members_[i].pid, nullptr, WNOHANG) != 0) break;
        }
    }
    std::ifstream log(scratch_.path + "/m" + std::to_string(i) + ".log");
    std::stringstream text;
    text << log.rdbuf();
    throw std::runtime_error("etcd does not start (is etcd-server installed?): " + text.str());
}

size_t etcd_members::leader() const {
    host::connection calls(settings_for(url()));
    for (size_t i = 0; i < members_.size(); ++i) {
        try {
            auto at_most = host::steady::now() + std::chrono::milliseconds(500);
            auto status = calls.status_of(i, at_most);
            if (status.leader() != 0 && status.leader() == status.header().member_id()) return i;
        } catch (const host::host_error &) {
            continue;  // it is not running
        }
    }
    return members_.size();
}

std::string etcd_members::url(const std::string &prefix) const {
    std::string all = scheme_ == "https" ? "etcds://" : "etcd://";
    for (size_t i = 0; i < members_.size(); ++i)
        all += (i > 0 ? "," : "") + members_[i].client;
    return all + prefix;
}

// ---- Users --------------------------------------------------------------------------------------

static void run_quietly(const std::string &commands) {
    if (std::system(("{ " + commands + "; } >/dev/null 2>&1").c_str()) != 0) {
        throw std::runtime_error("fails: " + commands);
    }
}

required_login::required_login(const etcd_members &members) {
    std::string file = members.directory() + "/login";
    std::string tool = "ETCDCTL_API=3 etcdctl --endpoints=" + members.address(0) + " ";
    run_quietly("(umask 077; echo root:secret > " + file + ") && " + tool +
                "user add root:secret && " + tool + "auth enable");
    (void)setenv(host::LOGIN_VARIABLE, file.c_str(), 1);
}

required_login::~required_login() {
    (void)unsetenv(host::LOGIN_VARIABLE);
}

std::vector<std::string> short_lived_tokens(const std::string &directory) {
    std::string key = directory + "/token.key";
    std::string pem = directory + "/token.pem";
    run_quietly("openssl genrsa -out " + key + " 2048 && openssl rsa -in " + key +
                " -pubout -out " + pem);
    return {"--auth-token=jwt,pub-key=" + pem + ",priv-key=" + key + ",sign-method=RS256,ttl=2s"};
}

}  // namespace keyview::test
