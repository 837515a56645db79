// See server.h.
#include "ctl/serve/server.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <utility>

#include "ctl/serve/http_library.h"
#include "model/secret.h"

namespace keyview::ctl {

using namespace std::chrono_literals;

// The bounds. What a client sends before its answer begins fits into its memory.
static constexpr unsigned MOST_CONNECTIONS = 1200;
static constexpr size_t CONNECTION_MEMORY = 16384;
static constexpr auto REQUEST_TIME = 10s, ANSWER_TIME = 60s, IDLE_TIME = 30s;
static constexpr unsigned SILENCE_S = 45;  // nothing is sent or received
static constexpr auto HEARTBEAT = 10s, DRAIN_TIME = 5s, DEAD_AFTER = 60s;
static constexpr int MOST_REFUSED_A_SECOND = 5;

// ---- Callbacks ----------------------------------------------------------------------------------

// No exception may cross the library of HTTP.
struct server_callbacks {
    static MHD_Result handle(void *arg, MHD_Connection *connection, const char *path,
                             const char *method, const char *, const char *, size_t *,
                             void **request) {
        try {
            const bool begun = *request != nullptr;
            *request = arg;
            return static_cast<MHD_Result>(
                static_cast<server *>(arg)->handle(connection, path, method, begun));
        } catch (...) {
            return MHD_NO;  // which closes the connection
        }
    }

    static void connected(void *arg, MHD_Connection *connection, void **,
                          MHD_ConnectionNotificationCode what) {
        auto *self = static_cast<server *>(arg);
        try {
            const std::lock_guard guard(self->mutex_);
            if (what == MHD_CONNECTION_NOTIFY_CLOSED) {
                self->peers_.erase(connection);
                return;
            }
            const auto *known =
                http().get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            self->peers_[connection] = {known->connect_fd, server::steady::now() + REQUEST_TIME};
        } catch (...) {  // the silence of the peer ends it
        }
    }

    static void completed(void *arg, MHD_Connection *connection, void **,
                          MHD_RequestTerminationCode) {
        static_cast<server *>(arg)->set_deadline(connection, IDLE_TIME);
    }

    static void ignore_log(void *, const char *, va_list) {}
};

// ---- Begin and end ------------------------------------------------------------------------------

server::server(endpoint *place, server_options options, metrics *counts_of_all)
    : counts(counts_of_all),
      options_(std::move(options)),
      checks_host_(place->is_local() && !place->is_unix()) {
    // Not epoll: of a client whose words and end arrive together the library then sees the words alone,
    // and waits for more. A suspended connection is polled in neither way.
    unsigned flags = MHD_USE_POLL | MHD_USE_INTERNAL_POLLING_THREAD | MHD_ALLOW_SUSPEND_RESUME |
                     MHD_USE_ITC | MHD_USE_ERROR_LOG;
    std::vector<MHD_OptionItem> settings;
    auto set = [&](MHD_OPTION option, intptr_t value, const void *pointer = nullptr) {
        settings.push_back({option, value, const_cast<void *>(pointer)});
    };
    set(MHD_OPTION_EXTERNAL_LOGGER, reinterpret_cast<intptr_t>(&server_callbacks::ignore_log));
    set(MHD_OPTION_LISTEN_SOCKET, place->fd());
    set(MHD_OPTION_CONNECTION_LIMIT, MOST_CONNECTIONS);
    set(MHD_OPTION_CONNECTION_MEMORY_LIMIT, CONNECTION_MEMORY);
    set(MHD_OPTION_CONNECTION_TIMEOUT, SILENCE_S);
    set(MHD_OPTION_STRICT_FOR_CLIENT, 1);
    set(MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(&server_callbacks::connected),
        this);
    set(MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(&server_callbacks::completed),
        this);
    if (!options_.certificate.empty()) {
        flags |= MHD_USE_TLS;
        set(MHD_OPTION_HTTPS_MEM_CERT, 0, options_.certificate.c_str());
        set(MHD_OPTION_HTTPS_MEM_KEY, 0, options_.key.c_str());
        set(MHD_OPTION_HTTPS_PRIORITIES, 0, "SECURE128:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2");
    }
    set(MHD_OPTION_END, 0);
    alive_ = steady::now().time_since_epoch().count();
    daemon_ = http().start_daemon(flags, 0, nullptr, nullptr, &server_callbacks::handle, this,
                                  MHD_OPTION_ARRAY, settings.data(), MHD_OPTION_END);
    model::clear_secret(&options_.key);  // the library of TLS has read it
    if (daemon_ == nullptr) {
        throw tool_error{EXIT_USAGE, "the server cannot start", place->name(),
                         options_.certificate.empty() ? "the socket cannot be used"
                                                      : "the certificate or its key cannot be used",
                         "check what --listen, --tls-cert and --tls-key name"};
    }
    (void)place->take();  // the library closes it
}

server::~server() {
    followers.end();
    if (daemon_ != nullptr) http().stop_daemon(daemon_);
    model::clear_secret(&options_.login);
}

void server::drain() {
    const int listening = http().quiesce_daemon(daemon_);
    if (listening >= 0) close(listening);
    followers.end();
    for (const auto end = steady::now() + DRAIN_TIME; connections() > 0 && steady::now() < end;) {
        {
            const std::lock_guard guard(mutex_);
            // Who has sent no request by now gets no answer.
            for (auto &[connection, one] : peers_)
                if (one.deadline < steady::now() + IDLE_TIME) (void)shutdown(one.fd, SHUT_RDWR);
        }
        std::this_thread::sleep_for(20ms);
    }
}

size_t server::connections() const {
    const std::lock_guard guard(mutex_);
    return peers_.size();
}

void server::set_deadline(MHD_Connection *connection, std::chrono::seconds left) {
    const std::lock_guard guard(mutex_);
    const auto found = peers_.find(connection);
    if (found != peers_.end()) found->second.deadline = steady::now() + left;
}

// The descriptor is open as long as its entry is there.
void server::tick() {
    const auto now = steady::now();
    alive_ = now.time_since_epoch().count();
    {
        const std::lock_guard guard(mutex_);
        for (const auto &[connection, one] : peers_)
            if (one.deadline < now) (void)shutdown(one.fd, SHUT_RDWR);
    }
    if (now < heartbeat_ + HEARTBEAT) return;
    heartbeat_ = now;
    followers.send_heartbeat();
}

void server::publish(std::shared_ptr<const answer_map> answers) {
    const std::lock_guard guard(mutex_);
    answers_ = std::move(answers);
}

void server::publish_failure(const tool_error &error) {
    counts->note_registry(false);
    const std::lock_guard guard(mutex_);
    answers_ = nullptr;
    failure_ = error_answer(error);
    failure_.status = 503;
}

// ---- Requests -----------------------------------------------------------------------------------

static const char *header_of(MHD_Connection *connection, const char *name) {
    return http().lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

// A page of another site may have its name resolve to this machine: the browser then sends that name.
bool server::may_use_host(std::string name) const {
    if (!checks_host_) return true;
    const size_t colon = name.rfind(':');
    if (colon != name.npos && name.find(']', colon) == name.npos) name.resize(colon);
    return name == "localhost" || name == "127.0.0.1" || name == "[::1]";
}

// Takes as long for a wrong one as for the right one of the same length.
bool server::has_login(const char *given) const {
    if (options_.login.empty()) return true;
    constexpr std::string_view SCHEME = "basic ";
    if (given == nullptr || strncasecmp(given, SCHEME.data(), SCHEME.size()) != 0) return false;
    const std::string_view word = std::string_view(given).substr(SCHEME.size());
    size_t differs = word.size() ^ options_.login.size();
    for (size_t n = 0; n < word.size(); ++n)
        differs |= static_cast<unsigned char>(word[n] ^ options_.login[n % options_.login.size()]);
    return differs == 0;
}

// Counts a refused login; whoever guesses is slowed down, whatever the guess is.
bool server::too_many_refused() {
    const std::lock_guard guard(mutex_);
    const auto now = steady::now();
    if (now > refused_since_ + 1s) {
        refused_since_ = now;
        refused_ = 0;
    }
    return ++refused_ > MOST_REFUSED_A_SECOND;
}

answer server::read_answer(const std::string &path) {
    if (path == "/metrics")
        return answer_of(metrics::CONTENT_TYPE, counts->text(connections(), followers.count()));
    std::shared_ptr<const answer_map> answers;
    {
        const std::lock_guard guard(mutex_);
        if (answers_ == nullptr) return failure_;
        answers = answers_;
    }
    return find_answer(*answers, path);
}

static bool has_body(MHD_Connection *connection) {
    const char *length = header_of(connection, "Content-Length");
    return header_of(connection, "Transfer-Encoding") != nullptr ||
           (length != nullptr && strcmp(length, "0") != 0);
}

// A target may name scheme and host before its path; that host counts then, not the one in Host.
static request_target target_of(const std::string &given, const char *host) {
    constexpr size_t LONGEST_SCHEME = 5;
    const size_t scheme = given.find("://");
    if (given[0] == '/' || scheme > LONGEST_SCHEME) return {host == nullptr ? "" : host, given};
    const size_t begin = scheme + 3, end = std::min(given.find('/', begin), given.size());
    return {given.substr(begin, end - begin), end < given.size() ? given.substr(end) : "/"};
}

answer server::choose(MHD_Connection *connection, const request_target &target, bool reads) {
    if (!reads)
        return error_answer(405, EXIT_USAGE,
                            "only GET and HEAD are answered: the server changes nothing");
    if (has_body(connection)) return error_answer(413, EXIT_USAGE, "a request has no body here");
    if (!may_use_host(target.host))
        return error_answer(421, EXIT_DENIED,
                            "the host that the request names is not this machine");
    if (target.path == "/healthz") {
        const auto last = steady::time_point(steady::duration(alive_.load()));
        const bool alive = steady::now() - last < DEAD_AFTER;
        return answer_of("text/plain", alive ? "ok\n" : "the reader of the registry hangs\n",
                         alive ? 200 : 503);
    }
    if (target.path == "/readyz") {
        const std::lock_guard guard(mutex_);
        return answer_of("text/plain", answers_ != nullptr ? "ok\n" : "not ready\n",
                         answers_ != nullptr ? 200 : 503);
    }
    if (!has_login(header_of(connection, "Authorization"))) {
        if (too_many_refused())
            return error_answer(429, EXIT_DENIED, "too many logins are refused");
        return error_answer(401, EXIT_DENIED, "it needs a login");
    }
    return read_answer(target.path);
}

static MHD_Response *response_of(const answer &what) {
    auto *owner = new std::shared_ptr<const std::string>(what.body);
    auto release = [](void *arg) { delete static_cast<std::shared_ptr<const std::string> *>(arg); };
    MHD_Response *made = http().create_response_from_buffer_with_free_callback_cls(
        (*owner)->size(), const_cast<char *>((*owner)->data()), release, owner);
    if (made == nullptr) delete owner;
    return made;
}

static bool is_known(MHD_Connection *connection, const answer &what) {
    const char *known = header_of(connection, "If-None-Match");
    return known != nullptr && !what.etag.empty() && what.status == 200 &&
           (strcmp(known, "*") == 0 || strstr(known, what.etag.c_str()) != nullptr);
}

static const char *const EVENT_STREAM = "text/event-stream", *const EVENTS = "/v1/events";

int server::send(MHD_Connection *connection, const answer &what) {
    static constexpr const char *HEADERS[][2] = {
        {"Content-Security-Policy", "default-src 'none'; frame-ancestors 'none'"},
        {"X-Content-Type-Options", "nosniff"},
        {"X-Frame-Options", "DENY"},
        {"Referrer-Policy", "no-referrer"},
        {"Cross-Origin-Resource-Policy", "same-origin"},
        {"Cache-Control", "no-store"},
    };
    const bool follows = what.type == EVENT_STREAM && what.body == nullptr;
    const bool page = what.type != nullptr && strncmp(what.type, "text/html", 9) == 0;
    answer sent = what;
    if (is_known(connection, what))
        sent = {304, nullptr, std::make_shared<const std::string>(), what.etag};
    MHD_Response *response = follows ? followers.follow(connection) : response_of(sent);
    if (response == nullptr) return MHD_NO;
    for (const auto &[name, value] : HEADERS) {
        // The page has the rest of its policy in its head.
        const bool policy = page && name == HEADERS[0][0];
        (void)http().add_response_header(response, name, policy ? "frame-ancestors 'none'" : value);
    }
    if (sent.type != nullptr) (void)http().add_response_header(response, "Content-Type", sent.type);
    if (!sent.etag.empty()) (void)http().add_response_header(response, "ETag", sent.etag.c_str());
    if (sent.status == 401)
        (void)http().add_response_header(response, "WWW-Authenticate",
                                         "Basic realm=\"keyview\", charset=\"UTF-8\"");
    if (sent.status == 405) (void)http().add_response_header(response, "Allow", "GET, HEAD");
    if (sent.status == 413 || sent.status == 405)
        (void)http().add_response_header(response, "Connection", "close");
    const MHD_Result queued = http().queue_response(connection, sent.status, response);
    http().destroy_response(response);  // it lives as long as it is sent
    counts->count_answer(sent.status);
    return queued;
}

// Called when the head of a request is there, and again behind its body. What has one is refused at once,
// and its connection is closed.
int server::handle(MHD_Connection *connection, const char *path, const char *method, bool begun) {
    const bool reads = strcmp(method, "GET") == 0 || strcmp(method, "HEAD") == 0;
    if (!begun && reads && !has_body(connection)) return MHD_YES;
    const request_target target = target_of(path, header_of(connection, "Host"));
    answer chosen = choose(connection, target, reads);
    const bool events = target.path == EVENTS && chosen.status == 404;
    const bool follows = events && strcmp(method, "GET") == 0;
    if (events) chosen = answer_of(EVENT_STREAM, "", 200);
    if (follows) chosen.body = nullptr;
    set_deadline(connection, follows ? std::chrono::hours(24 * 365) : ANSWER_TIME);
    return send(connection, chosen);
}

}  // namespace keyview::ctl
