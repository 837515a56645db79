// The endpoints of a cluster, and the settings of its connections.
//
//     etcd://host:port,host:port/prefix     without TLS
//     etcds://host:port,host:port/prefix    with TLS
//
// All secrets come from files, never from a URL or an argument.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace keyview::host {

using steady = std::chrono::steady_clock;

struct cluster_settings {
    std::string url;
    std::vector<std::string> members;  // "host:port"
    std::string prefix;                // of all keys, "/keyview"

    bool tls = false;
    std::string ca_file;    // authorities of the members
    std::string cert_file;  // of this program; empty for none
    std::string key_file;
    std::string login_file;  // "user:password"; empty for no login

    std::chrono::milliseconds answer_wait{0};  // for one call, with all its tries
    std::chrono::seconds lease_ttl{0};         // how long a lock outlives its holder
};

// From a URL and the environment. Throws failure::usage.
cluster_settings settings_of(const std::string &url);

// The whole of a small file. A secret must be readable by its owner alone. Throws
// failure::usage with the name of the variable that names the file.
std::string file_text(const std::string &path, const char *variable, bool secret);

// The variables that name files.
constexpr const char *CA_VARIABLE = "KEYVIEW_CLUSTER_CA";
constexpr const char *CERT_VARIABLE = "KEYVIEW_CLUSTER_CERT";
constexpr const char *KEY_VARIABLE = "KEYVIEW_CLUSTER_KEY";
constexpr const char *LOGIN_VARIABLE = "KEYVIEW_CLUSTER_LOGIN";

}  // namespace keyview::host
