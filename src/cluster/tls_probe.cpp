// One handshake with OpenSSL, with the same settings as the calls.
#include "cluster/tls_probe.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <signal.h>

#include <future>
#include <memory>

namespace keyview::host {

namespace {

struct free_it {
    void operator()(SSL_CTX *rules) const { SSL_CTX_free(rules); }
    void operator()(BIO *connection) const { BIO_free_all(connection); }
};

template <typename T>
using owned = std::unique_ptr<T, free_it>;

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

// Repeats a step of OpenSSL until it is done or the time is over. Returns whether it was in time.
template <typename function>
bool complete(BIO *connection, steady::time_point end, function &&step) {
    while (step() <= 0) {
        if (BIO_should_retry(connection) == 0) return true;
        short events = BIO_should_read(connection) != 0 ? POLLIN : POLLOUT;
        pollfd ready = {static_cast<int>(BIO_get_fd(connection, nullptr)), events, 0};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now());
        if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) != 1) return false;
    }
    return true;
}

// TLS 1.3 lets a client finish before the member has checked its certificate: only the first bytes,
// of HTTP/2, show that it was accepted.
bool shake_hands(BIO *connection, SSL *session, steady::time_point end) {
    static constexpr unsigned char HTTP2[] = {2, 'h', '2'};
    (void)SSL_set_alpn_protos(session, HTTP2, sizeof(HTTP2));
    if (!complete(connection, end, [&] { return BIO_do_handshake(connection); })) return false;
    char first = 0;
    return SSL_is_init_finished(session) == 0 ||
           complete(connection, end, [&] { return BIO_read(connection, &first, 1); });
}

int64_t seconds_left(const X509 *certificate) {
    int days = 0;
    int seconds = 0;
    (void)ASN1_TIME_diff(&days, &seconds, nullptr, X509_get0_notAfter(certificate));
    return int64_t{days} * 86400 + seconds;
}

std::string distrust(long verified, const std::string &host) {
    switch (verified) {
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return "its certificate has expired: renew it";
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return "its certificate is not valid yet: check the clocks";
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            return "its certificate is not for the name " + host +
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
           (seconds_left(own) <= 0
                ? "has expired: renew it"
                : "must be for a client and of an authority that the member trusts");
}

// Empty if the connection did not fail because of TLS.
std::string fault_of(const SSL *session, const cluster_settings &settings, const std::string &host,
                     bool in_time) {
    unsigned long cause = ERR_peek_last_error();
    int alert = ERR_GET_REASON(cause) - SSL_AD_REASON_OFFSET;
    bool is_alert = ERR_GET_LIB(cause) == ERR_LIB_SSL && alert > 0;
    if (!settings.tls) {
        bool speaks_tls = SSL_is_init_finished(session) || is_alert;
        return speaks_tls ? "it speaks TLS: use etcds:// in the URL" : "";
    }
    long verified = SSL_get_verify_result(session);
    if (verified != X509_V_OK) return distrust(verified, host);
    bool about_certificate = (alert >= SSL_AD_NO_CERTIFICATE && alert <= SSL_AD_UNKNOWN_CA) ||
                             alert == SSL_AD_CERTIFICATE_REQUIRED;
    if (is_alert && about_certificate) return refusal(session, settings);
    bool began = SSL_get_state(session) != TLS_ST_BEFORE;  // after the connection was made
    if (!in_time || !began || SSL_is_init_finished(session)) return "";
    if (!is_alert) return "it does not speak TLS: use etcd:// in the URL, or give it a certificate";
    return std::string("TLS fails: ") + ERR_reason_error_string(cause);
}

tls_facts probe(const cluster_settings &settings, const std::string &member,
                steady::time_point end) {
    owned<SSL_CTX> rules = rules_of(settings);
    owned<BIO> connection(BIO_new_ssl_connect(rules.get()));
    SSL *session = nullptr;
    (void)BIO_get_ssl(connection.get(), &session);
    (void)BIO_set_conn_hostname(connection.get(), member.c_str());
    (void)BIO_set_nbio(connection.get(), 1);
    std::string host = member.substr(0, member.rfind(':'));
    if (host.front() == '[') host = host.substr(1, host.size() - 2);
    if (X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(session), host.c_str()) != 1) {
        (void)SSL_set1_host(session, host.c_str());
        (void)SSL_set_tlsext_host_name(session, host.c_str());
    }
    tls_facts seen;
    bool in_time = shake_hands(connection.get(), session, end);
    seen.fault = fault_of(session, settings, host, in_time);
    const X509 *certificate = SSL_get0_peer_certificate(session);
    if (certificate != nullptr) seen.seconds_left = seconds_left(certificate);
    return seen;
}

}  // namespace

// On a thread of its own, which ends with its errors of OpenSSL and with the SIGPIPE that a write
// to a closed connection raises.
tls_facts probe_tls(const cluster_settings &settings, const std::string &member,
                    std::chrono::milliseconds wait) {
    auto seen = std::async(std::launch::async, [&] {
        sigset_t all;
        (void)sigfillset(&all);
        (void)pthread_sigmask(SIG_BLOCK, &all, nullptr);
        return probe(settings, member, steady::now() + wait);
    });
    return seen.get();
}

}  // namespace keyview::host
