// One handshake with OpenSSL, with the same settings as the calls.
#include "cluster/tls_probe.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "host/support/fd.h"

namespace keyview::host {

namespace {

struct free_it {
    void operator()(SSL_CTX *rules) const { SSL_CTX_free(rules); }
    void operator()(SSL *session) const { SSL_free(session); }
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};

template <typename T>
using owned = std::unique_ptr<T, free_it>;

// "host:port" or "[address]:port".
struct endpoint {
    explicit endpoint(const std::string &member)
        : host(member.substr(0, member.rfind(':'))), port(member.substr(member.rfind(':') + 1)) {
        if (host.front() == '[') host = host.substr(1, host.size() - 2);
    }

    bool is_address() const {
        unsigned char bytes[sizeof(in6_addr)];
        return inet_pton(AF_INET, host.c_str(), bytes) == 1 ||
               inet_pton(AF_INET6, host.c_str(), bytes) == 1;
    }

    std::string host;
    std::string port;
};

bool wait_for(int fd, short events, steady::time_point end) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now()).count();
    pollfd ready = {fd, events, 0};
    return left > 0 && poll(&ready, 1, static_cast<int>(left)) == 1;
}

unique_fd connect_to(const endpoint &where, steady::time_point end) {
    addrinfo wanted = {};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (getaddrinfo(where.host.c_str(), where.port.c_str(), &wanted, &found) != 0) return {};
    owned<addrinfo> list(found);
    for (addrinfo *one = found; one != nullptr; one = one->ai_next) {
        unique_fd fd(socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (!fd.valid()) continue;
        bool started =
            connect(fd.get(), one->ai_addr, one->ai_addrlen) == 0 || errno == EINPROGRESS;
        int error = -1;
        socklen_t size = sizeof(error);
        if (started && wait_for(fd.get(), POLLOUT, end) &&
            getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0) {
            return fd;
        }
    }
    return {};
}

owned<SSL_CTX> rules_of(const cluster_settings &settings) {
    owned<SSL_CTX> rules(SSL_CTX_new(TLS_client_method()));
    if (!settings.tls) return rules;
    SSL_CTX_set_verify(rules.get(), SSL_VERIFY_PEER, nullptr);
    (void)SSL_CTX_load_verify_locations(rules.get(), settings.ca_file.c_str(), nullptr);
    if (!settings.cert_file.empty()) {
        (void)SSL_CTX_use_certificate_chain_file(rules.get(), settings.cert_file.c_str());
        (void)SSL_CTX_use_PrivateKey_file(rules.get(), settings.key_file.c_str(), SSL_FILETYPE_PEM);
    }
    return rules;
}

// Repeats one step of OpenSSL until it is done: then SSL_ERROR_NONE, else what failed.
template <typename function>
int complete(SSL *session, int fd, steady::time_point end, function &&step) {
    for (;;) {
        int rc = step();
        if (rc > 0) return SSL_ERROR_NONE;
        int error = SSL_get_error(session, rc);
        bool more = (error == SSL_ERROR_WANT_READ && wait_for(fd, POLLIN, end)) ||
                    (error == SSL_ERROR_WANT_WRITE && wait_for(fd, POLLOUT, end));
        if (!more) return error;
    }
}

// TLS 1.3 lets a client finish before the member has checked its certificate: only the first bytes,
// of HTTP/2, show that it was accepted.
int shake_hands(SSL *session, int fd, steady::time_point end) {
    static constexpr unsigned char HTTP2[] = {2, 'h', '2'};
    (void)SSL_set_alpn_protos(session, HTTP2, sizeof(HTTP2));
    int error = complete(session, fd, end, [&] { return SSL_connect(session); });
    char first = 0;
    if (error == SSL_ERROR_NONE)
        error = complete(session, fd, end, [&] { return SSL_read(session, &first, 1); });
    return error;
}

int64_t seconds_left(const X509 *certificate) {
    int days = 0;
    int seconds = 0;
    (void)ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return int64_t{days} * 86400 + seconds;
}

std::string distrust(long verified, const endpoint &where) {
    switch (verified) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "its certificate has expired: renew it";
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "its certificate is not valid yet: check the clocks";
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return "its certificate is not for the name " + where.host +
                   ": use a name that it contains, or add this one";
        default:
            return std::string("its certificate is not trusted (") +
                   X509_verify_cert_error_string(verified) + "): name the right authority in " +
                   CA_VARIABLE;
    }
}

// The member refuses the certificate of this program. Its alert need not give the reason.
std::string refusal(const SSL *session, const cluster_settings &settings) {
    const X509 *own = SSL_get_certificate(session);
    if (own == nullptr) {
        return std::string("it requires a certificate of this program: name its files in ") +
               CERT_VARIABLE + " and " + KEY_VARIABLE;
    }
    return "it refuses the certificate in " + settings.cert_file + ", which " +
           (seconds_left(own) < 0
                ? "has expired: renew it"
                : "must be for a client and of an authority that the member trusts");
}

// error is what the handshake ended with. Empty if that does not come from TLS.
std::string fault_of(const SSL *session, const cluster_settings &settings, const endpoint &where,
                     int error) {
    unsigned long cause = ERR_peek_last_error();
    int alert = ERR_GET_REASON(cause) - SSL_AD_REASON_OFFSET;
    bool is_alert = ERR_GET_LIB(cause) == ERR_LIB_SSL && alert > 0;
    if (!settings.tls) {
        bool speaks_tls = SSL_is_init_finished(session) || is_alert;
        return speaks_tls ? "it speaks TLS: use etcds:// in the URL" : "";
    }
    long verified = SSL_get_verify_result(session);
    if (verified != X509_V_OK) return distrust(verified, where);
    bool about_certificate = (alert >= SSL_AD_NO_CERTIFICATE && alert <= SSL_AD_UNKNOWN_CA) ||
                             alert == SSL_AD_CERTIFICATE_REQUIRED;
    if (is_alert && about_certificate) return refusal(session, settings);
    bool in_time = error == SSL_ERROR_SSL || error == SSL_ERROR_SYSCALL;
    if (!in_time || SSL_is_init_finished(session)) return "";
    if (!is_alert) return "it does not speak TLS: use etcd:// in the URL, or give it a certificate";
    return std::string("TLS fails: ") + ERR_reason_error_string(cause);
}

// A write of OpenSSL to a closed connection must not end the program.
class no_sigpipe {
  public:
    no_sigpipe() {
        (void)sigemptyset(&only_);
        (void)sigaddset(&only_, SIGPIPE);
        (void)pthread_sigmask(SIG_BLOCK, &only_, &before_);
    }
    no_sigpipe(const no_sigpipe &) = delete;
    no_sigpipe &operator=(const no_sigpipe &) = delete;
    ~no_sigpipe() {
        timespec at_once = {};
        if (sigismember(&before_, SIGPIPE) == 0) (void)sigtimedwait(&only_, nullptr, &at_once);
        (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

  private:
    sigset_t only_;
    sigset_t before_;
};

}  // namespace

tls_facts probe_tls(const cluster_settings &settings, const std::string &member,
                    std::chrono::milliseconds wait) {
    no_sigpipe quiet;
    endpoint where(member);
    steady::time_point end = steady::now() + wait;
    tls_facts seen;
    unique_fd fd = connect_to(where, end);
    if (!fd.valid()) return seen;
    ERR_clear_error();
    owned<SSL_CTX> rules = rules_of(settings);
    owned<SSL> session(SSL_new(rules.get()));
    if (where.is_address()) {
        (void)X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session.get()), where.host.c_str());
    } else {
        (void)SSL_set1_host(session.get(), where.host.c_str());
        (void)SSL_set_tlsext_host_name(session.get(), where.host.c_str());
    }
    (void)SSL_set_fd(session.get(), fd.get());
    int error = shake_hands(session.get(), fd.get(), end);
    seen.fault = fault_of(session.get(), settings, where, error);
    const X509 *certificate = SSL_get0_peer_certificate(session.get());
    seen.answered = certificate != nullptr;
    if (seen.answered) seen.seconds_left = seconds_left(certificate);
    return seen;
}

}  // namespace keyview::host
