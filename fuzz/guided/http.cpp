// Requests of any kind to the server of "serve", through the calls that the library of HTTP makes:
// each has one answer, no change is ever made, and without the login only health is shown.
#include "ctl/serve/server.h"

#include <sys/socket.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "ctl/serve/http_library.h"
#include "target.h"

using keyview::test::require;

// What stands for the library's own records.
struct MHD_Response {
    std::map<std::string, std::string> headers;
    MHD_ContentReaderCallback read = nullptr;  // of the answer to a follower
    MHD_ContentReaderFreeCallback release = nullptr;
    void *arg = nullptr;
};
struct MHD_Connection {
    std::map<std::string, std::string> headers;
    unsigned status = 0;
    std::unique_ptr<MHD_Response> response;
};

namespace {

MHD_AccessHandlerCallback handler = nullptr;
void *handler_arg = nullptr;

MHD_Daemon *start_daemon(unsigned, uint16_t, MHD_AcceptPolicyCallback, void *,
                         MHD_AccessHandlerCallback called, void *arg, ...) {
    static char daemon;
    handler = called;
    handler_arg = arg;
    return reinterpret_cast<MHD_Daemon *>(&daemon);
}
void stop_daemon(MHD_Daemon *) {}
MHD_socket quiesce_daemon(MHD_Daemon *) {
    return MHD_INVALID_SOCKET;
}
const MHD_DaemonInfo *get_daemon_info(MHD_Daemon *, MHD_DaemonInfoType, ...) {
    return nullptr;
}
const MHD_ConnectionInfo *get_connection_info(MHD_Connection *, MHD_ConnectionInfoType, ...) {
    return nullptr;
}

const char *lookup_value(MHD_Connection *connection, MHD_ValueKind, const char *name) {
    const auto found = connection->headers.find(name);
    return found == connection->headers.end() ? nullptr : found->second.c_str();
}

MHD_Result queue_response(MHD_Connection *connection, unsigned status, MHD_Response *response) {
    require(connection->status == 0, "two answers");
    connection->status = status;
    connection->response = std::make_unique<MHD_Response>(*response);
    return MHD_YES;
}

MHD_Result add_header(MHD_Response *response, const char *name, const char *value) {
    for (const char *text : {name, value})
        require(strpbrk(text, "\r\n") == nullptr, "a header that ends");
    response->headers[name] = value;
    return MHD_YES;
}

void destroy_response(MHD_Response *response) {
    delete response;
}
void suspend(MHD_Connection *) {}
void resume(MHD_Connection *) {}

MHD_Response *from_callback(uint64_t, size_t, MHD_ContentReaderCallback read, void *arg,
                            MHD_ContentReaderFreeCallback release) {
    return new MHD_Response{{}, read, release, arg};
}

MHD_Response *from_buffer(size_t, void *, MHD_ContentReaderFreeCallback release, void *arg) {
    release(arg);
    return new MHD_Response{};
}

// A follower reads some and leaves.
void follow(const MHD_Response &response) {
    char some[64];
    for (int n = 0; n < 5; ++n)
        require(
            response.read(response.arg, 0, some, sizeof some) <= static_cast<ssize_t>(sizeof some),
            "more than there is room for");
    response.release(response.arg);
}

}  // namespace

const keyview::ctl::http_library &keyview::ctl::http() {
    static const http_library ALL = {
        start_daemon, stop_daemon,    quiesce_daemon, get_daemon_info,  get_connection_info,
        lookup_value, queue_response, add_header,     destroy_response, suspend,
        resume,       from_callback,  from_buffer};
    return ALL;
}

namespace {

constexpr const char *LOGIN = "dTpw";  // "u:p"

// A server with a login and one answer of each kind.
struct served {
    served() : place("127.0.0.1:0"), one(&place, {"", "", LOGIN}, &counts) {
        auto answers = std::make_shared<keyview::ctl::answer_map>();
        (*answers)["/"] = keyview::ctl::answer_of("text/html; charset=utf-8", "<p>");
        (*answers)["/v1/databases"] = keyview::ctl::answer_of(keyview::ctl::JSON, "{}");
        one.publish(answers);
        one.tick();
    }

    keyview::ctl::metrics counts;
    keyview::ctl::endpoint place;
    keyview::ctl::server one;
};

std::string_view line_of(std::string_view *rest) {
    const size_t end = std::min(rest->find('\n'), rest->size());
    const std::string_view line = rest->substr(0, end);
    rest->remove_prefix(std::min(end + 1, rest->size()));
    return line;
}

bool may_be_seen_by_all(const std::string &path) {
    return path == "/healthz" || path == "/readyz";
}

}  // namespace

// A method, a path, and headers, a line each.
void keyview::test::one_input(std::string_view input) {
    static served server;
    const std::string method(line_of(&input)), path(line_of(&input));
    MHD_Connection client;
    while (!input.empty()) {
        const std::string_view line = line_of(&input);
        const size_t colon = std::min(line.find(':'), line.size());
        client.headers[std::string(line.substr(0, colon))] =
            line.substr(std::min(colon + 1, line.size()));
    }
    // Strings of C end at a zero byte.
    void *request = nullptr;
    for (int part = 0; part < 2 && client.status == 0; ++part) {
        size_t body = 0;
        (void)handler(handler_arg, &client, path.c_str(), method.c_str(), "HTTP/1.1", nullptr,
                      &body, &request);
    }
    require(client.status != 0, "no answer");
    const bool reads = strcmp(method.c_str(), "GET") == 0 || strcmp(method.c_str(), "HEAD") == 0;
    const bool done = client.status == 200 || client.status == 304;
    require(reads || !done, "another method is answered");
    const char *login = client.headers["Authorization"].c_str();
    const bool knows = strlen(login) == 10 && strncasecmp(login, "basic ", 6) == 0 &&
                       strcmp(login + 6, LOGIN) == 0;
    require(!done || knows || may_be_seen_by_all(path.c_str()), "shown without a login");
    require(client.response->headers.count("X-Content-Type-Options") == 1, "a header is missing");
    planted_fault(client.status == 413);
    if (client.response->read != nullptr) follow(*client.response);
}
