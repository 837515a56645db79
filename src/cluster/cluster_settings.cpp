// Parses the URL and the environment.
#include "cluster/cluster_settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "host/support/environment.h"
#include "host/support/error.h"
#include "host/support/fd.h"

namespace keyview::host {

static constexpr const char *SYSTEM_CA = "/etc/ssl/certs/ca-certificates.crt";
static constexpr uint32_t USUAL_ANSWER_WAIT_S = 10;
static constexpr uint32_t LONGEST_ANSWER_WAIT_S = 3600;
static constexpr uint32_t USUAL_LEASE_S = 10;
static constexpr uint32_t SHORTEST_LEASE_S = 2;
static constexpr uint32_t LONGEST_LEASE_S = 600;
static constexpr size_t LARGEST_FILE = size_t{1} << 20;

static host_error bad_url(const std::string &url, const std::string &why) {
    return {failure::usage, "'" + url + "' is no URL of a cluster: " + why +
                                "; use etcd://host:port,host:port/prefix"};
}

static bool is_port(std::string_view text) {
    uint16_t port = 0;  // larger numbers would be taken modulo 65536
    auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && stop == text.data() + text.size() && port != 0;
}

static void check_member(const std::string &url, std::string_view member) {
    size_t colon = member.rfind(':');
    bool sound = colon != member.npos && colon > 0 && is_port(member.substr(colon + 1));
    if (!sound) throw bad_url(url, "'" + std::string(member) + "' is no host:port");
}

// Splits "//a:1,b:2/prefix" into the members and the prefix.
static void split_address(std::string_view address, cluster_settings *out) {
    if (address.find('@') != address.npos) {  // the text must not contain it
        throw host_error(failure::usage, std::string("the URL of the cluster holds a login: put it "
                                                     "into a file that ") +
                                             LOGIN_VARIABLE + " names");
    }
    if (address.substr(0, 2) != "//") throw bad_url(out->url, "'//' is missing");
    address.remove_prefix(2);
    size_t slash = std::min(address.find('/'), address.size());
    std::string_view prefix = address.substr(slash);
    while (!prefix.empty() && prefix.back() == '/')
        prefix.remove_suffix(1);
    out->prefix = prefix.empty() ? "/keyview" : prefix;
    auto printable = [](char c) { return c > ' ' && c < 0x7F; };
    if (!std::all_of(prefix.begin(), prefix.end(), printable)) {
        throw bad_url(out->url, "the prefix holds more than printable ASCII");
    }
    std::string_view members = address.substr(0, slash);
    for (size_t at = 0; at <= members.size();) {
        size_t end = std::min(members.find(',', at), members.size());
        check_member(out->url, members.substr(at, end - at));
        out->members.emplace_back(members.substr(at, end - at));
        at = end + 1;
    }
}

cluster_settings settings_of(const std::string &url) {
    cluster_settings made;
    made.url = url;
    size_t colon = url.find(':');
    made.tls = url.substr(0, colon) == "etcds";
    split_address(std::string_view(url).substr(colon + 1), &made);
    made.ca_file = environment_text(CA_VARIABLE);
    if (made.ca_file.empty()) made.ca_file = SYSTEM_CA;
    made.cert_file = environment_text(CERT_VARIABLE);
    made.key_file = environment_text(KEY_VARIABLE);
    made.login_file = environment_text(LOGIN_VARIABLE);
    if (made.cert_file.empty() != made.key_file.empty()) {
        throw host_error(failure::usage, std::string(CERT_VARIABLE) + " and " + KEY_VARIABLE +
                                             " must be set together: only one of them is");
    }
    uint32_t answer_wait_s =
        environment_number("KEYVIEW_ANSWER_WAIT", USUAL_ANSWER_WAIT_S, LONGEST_ANSWER_WAIT_S);
    made.answer_wait = std::chrono::seconds(std::max(answer_wait_s, 1U));
    uint32_t lease_s = environment_number("KEYVIEW_LEASE_TTL", USUAL_LEASE_S, LONGEST_LEASE_S);
    made.lease_ttl = std::chrono::seconds(std::max(lease_s, SHORTEST_LEASE_S));
    return made;
}

std::string file_text(const std::string &path, const char *variable, bool secret) {
    auto refuse = [&](const std::string &why) {
        return host_error(failure::usage,
                          "the file " + path + " that " + variable + " names " + why);
    };
    unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat known = {};
    if (file.get() < 0 || fstat(file.get(), &known) != 0) {
        throw refuse(std::string("cannot be read: ") + strerror(errno));
    }
    if (!S_ISREG(known.st_mode)) throw refuse("is no regular file");
    if (secret && (known.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw refuse("must be readable by its owner alone: chmod 600 it");
    }
    std::string text(LARGEST_FILE, '\0');
    size_t size = 0;
    for (ssize_t got = 1; got > 0 && size < text.size(); size += static_cast<size_t>(got)) {
        got = read(file.get(), text.data() + size, text.size() - size);
        if (got < 0) throw refuse(std::string("cannot be read: ") + strerror(errno));
    }
    text.resize(size);
    return text;
}

}  // namespace keyview::host
