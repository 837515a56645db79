// serve: the page of "report", the JSON of commands that read, and changes as they happen, over HTTP.
#include <sys/stat.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>
#include <utility>

#include "admin/document/base64.h"
#include "ctl/change_source.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/serve/server.h"
#include "ctl/session.h"
#include "ctl/text.h"
#include "host/if/keyview_host.h"
#include "model/roots.h"
#include "model/secret.h"

namespace keyview::ctl {

namespace {

struct serve_options {
    std::string listen, certificate, key, login;
    double seconds = 0;
};

}  // namespace

static constexpr const char *CANNOT_SERVE = "the cluster cannot be served";

// The text of a file for its owner alone.
static std::string secret_in(const std::string &file) {
    struct stat known = {};
    if (stat(file.c_str(), &known) == 0 && (known.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        throw tool_error{EXIT_USAGE, CANNOT_SERVE, file, "others than its owner may use the file",
                         "chmod 600 it"};
    }
    return read_file(file);
}

// The login of a line "user:password", as clients send it.
static std::string login_in(const std::string &file) {
    std::string text = secret_in(file);
    const model::cleared_at_end clears(&text);
    text.resize(std::min(text.find_first_of("\r\n"), text.size()));
    const size_t colon = text.find(':');
    if (colon == 0 || colon == text.npos || colon + 1 == text.size()) {
        throw tool_error{EXIT_USAGE, CANNOT_SERVE, file, "it holds no login",
                         "write a line user:password into it"};
    }
    return admin::to_base64(text);
}

static server_options options_of(const serve_options &given, const endpoint &place) {
    server_options out;
    if (!given.certificate.empty()) {
        out.certificate = read_file(given.certificate);
        if (out.certificate.empty())
            throw tool_error{EXIT_USAGE, CANNOT_SERVE, given.certificate, "it holds no certificate",
                             "name a file with the certificate in PEM"};
        out.key = secret_in(given.key);
    }
    if (!given.login.empty()) out.login = login_in(given.login);
    if (place.is_local() || (!out.certificate.empty() && !out.login.empty())) return out;
    throw tool_error{EXIT_USAGE, CANNOT_SERVE, place.name(),
                     "other machines can reach it, and it has no TLS or no login",
                     "give --tls-cert, --tls-key and --login, or listen on 127.0.0.1 or unix:PATH"};
}

static std::atomic<bool> end_requested = false;

static void note_end(int) {
    end_requested = true;
}

namespace {

// Reads the cluster when it changes, and keeps the server up to date. The one thread that uses the
// registry.
class cluster_reader {
  public:
    cluster_reader(const session &library, const serve_options &options)
        : library_(library), end_(time_after(options.seconds)), timed_(options.seconds > 0) {}

    // Reads the cluster and has it answered from now on.
    void read(server *to) {
        // Nobody waits long for a lock that somebody forgot.
        (void)keyview_host_set_lock_wait(std::min(LONGEST_LOCK_WAIT_MS, lock_wait_));
        const overview cluster = read_overview(library_, CANNOT_SERVE);
        const entry_overview entries = read_entries(library_, CANNOT_SERVE);
        to->publish(std::make_shared<const answer_map>(
            answers_of(cluster, entries, library_.shared.registry)));
        to->counts->note_read(cluster);
        to->followers.publish("revision", cluster.revision, std::to_string(cluster.revision));
        known_ = cluster.revision;
        busy_ = std::any_of(cluster.databases.begin(), cluster.databases.end(),
                            [](const auto &one) { return one.code == EXIT_LOCK; });
        for (const auto *records : {&entries.nodes, &entries.storage_managers})
            for (const auto &one : *records)
                busy_ = busy_ || (one.error && one.error->code == EXIT_LOCK);
    }

    // Until the end; the cluster was read once.
    void run(server *to) {
        while (!over()) {
            try {
                if (known_ == 0) read(to);
                follow(to);
            } catch (const tool_error &error) {
                to->publish_failure(error);
            } catch (const admin::error &error) {
                const host_failure &failure = host_failure_of(error.kind);
                to->publish_failure({failure.code, CANNOT_SERVE, library_.shared.registry,
                                     error.what(), failure.todo});
            }
            known_ = 0;
            pause(to, RETRY);
        }
    }

  private:
    using steady = std::chrono::steady_clock;
    static constexpr int64_t LONGEST_LOCK_WAIT_MS = 2000;
    static constexpr uint32_t WAIT_MS = 250;
    static constexpr steady::duration RETRY = std::chrono::seconds(1);

    bool over() const { return end_requested || (timed_ && steady::now() >= end_); }

    void pause(server *to, steady::duration length) const {
        for (const auto until = steady::now() + length; !over() && steady::now() < until;) {
            to->tick();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    // Until the end, or until the registry fails.
    void follow(server *to) {
        change_source source(admin::registry::open(), ROOT, known_);
        auto send = [&](const char *kind, uint64_t revision, std::string line) {
            line.pop_back();  // its line feed
            to->followers.publish(kind, revision, line);
        };
        const change_sink sink = {
            [&](const revision_jump &jump) { send(jump.kind, jump.revision, line_of(jump)); },
            [&](uint64_t since, uint64_t revision, const admin::key_change &change) {
                send("change", revision, line_of(since, revision, change));
            }};
        uint64_t read_for = known_;  // what the source reported when the cluster was read
        auto earliest = steady::now();
        while (!over()) {
            const auto slice_end = steady::now() + std::chrono::milliseconds(WAIT_MS);
            source.next([&] { return left_until(slice_end); }, sink);
            to->tick();
            const uint64_t revision = source.revision();
            const bool changed = revision != known_ && revision != read_for;
            const auto begun = steady::now();
            if (begun < earliest || (!changed && !busy_)) continue;
            read(to);
            read_for = revision;
            // Half of the time at most goes into reading; changes are reported meanwhile.
            const auto took = steady::now() - begun;
            earliest = steady::now() + (busy_ ? std::max(took, RETRY) : took);
        }
    }

    uint32_t left_until(steady::time_point end) const {
        if (over()) return 0;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - steady::now()).count();
        return static_cast<uint32_t>(std::clamp<int64_t>(left, 0, WAIT_MS));
    }

    const session &library_;
    const steady::time_point end_;
    const bool timed_;
    const int64_t lock_wait_ = keyview_host_lock_wait();
    uint64_t known_ = 0;  // the revision that was read last
    bool busy_ = false;   // a database was locked then: it is read again
};

}  // namespace

static exit_code run_serve(const tool &shared, const serve_options &options) {
    if (options.certificate.empty() != options.key.empty()) {
        throw tool_error{EXIT_USAGE, CANNOT_SERVE, "",
                         "only one of --tls-cert and --tls-key is given", "give both"};
    }
    for (int number : {SIGTERM, SIGINT})
        (void)signal(number, note_end);
    metrics counts;
    session library(shared);
    library.observer = [&](const char *call, double seconds) { counts.observe(call, seconds); };
    shared.reporter->stop();
    endpoint place(options.listen);
    server_options how = options_of(options, place);
    cluster_reader reader(library, options);
    const char *scheme = how.certificate.empty() ? "http://" : "https://";
    const std::string url = place.is_unix() ? place.name() : scheme + place.name() + "/";
    server http_server(&place, std::move(how), &counts);
    reader.read(&http_server);
    print_remark("serves " + shown_url(shared.registry) + " at " + url);
    reader.run(&http_server);
    http_server.drain();
    return EXIT_DONE;
}

void add_serve_command(CLI::App *app, tool *shared) {
    auto options = std::make_shared<serve_options>();
    CLI::App *serve = add_command(
        app, shared, "serve",
        "Serve the page of the cluster over HTTP, live, with the JSON of commands that read below "
        "/v1 and /metrics. It changes nothing; SIGTERM ends it",
        [=] { return run_serve(*shared, *options); });
    serve->add_option("--listen", options->listen,
                      "Address and port, or unix:PATH; without it the socket of LISTEN_FDS, else "
                      "127.0.0.1:8480. What other machines can reach needs TLS and a login");
    serve->add_option("--tls-cert", options->certificate,
                      "File with the certificate and its chain");
    serve->add_option("--tls-key", options->key, "File with its key");
    serve->add_option("--login", options->login,
                      "File for its owner alone, with a line user:password that clients give");
    add_for_option(serve, &options->seconds);
}

}  // namespace keyview::ctl
