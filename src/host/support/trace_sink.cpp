// Sinks of the trace. A sink lives as long as the process, so that a line may be written to it
// while the program chooses another; all files are opened under one descriptor.
#include "host/support/trace_sink.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/support/environment.h"
#include "host/support/error.h"
#include "host/support/escape.h"
#include "host/support/fd.h"
#include "host/support/fork.h"
#include "platform/trcd.h"

namespace keyview::host {

static constexpr int64_t LET_ALL_PASS = std::numeric_limits<int64_t>::max();
static constexpr int64_t DROP_ALL = std::numeric_limits<int64_t>::min();
static constexpr uint32_t HIGHEST_LEVEL = 1000;
static constexpr const char *JOURNAL_SOCKET = "/run/systemd/journal/socket";

enum class sink_kind { none, stream, system_log, journal };

struct trace_sink {
    std::string choice;
    sink_kind kind;
    unique_fd owned;
    int fd = -1;  // of stream and journal
    sockaddr_un address = {};
};

// Guarded by fork_mutex(), but for the atomics.
struct trace_state {
    std::vector<std::unique_ptr<trace_sink>> known;
    std::optional<int64_t> level;
    bool loaded = false;
};

std::atomic<int64_t> trace_threshold{LET_ALL_PASS};
static std::atomic<const trace_sink *> active{nullptr};

static trace_state &state() {
    static auto &only = *new trace_state;
    return only;
}

static host_error unusable(std::string_view choice, std::string_view why) {
    std::string text = "the trace cannot go to '";
    append_escaped(&text, choice);
    text += "': ";
    text += why;
    return host_error(failure::usage, text);
}

// Nothing may block the program, so a pipe without a reader is refused and a full one loses lines.
static unique_fd open_file(std::string_view choice, const std::string &path) {
    occupy_standard_descriptors();
    unique_fd fd(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600));
    if (!fd.valid()) throw unusable(choice, strerror(errno));
    return fd;
}

static void open_journal(trace_sink *sink, const std::string &path) {
    if (path.size() >= sizeof(sink->address.sun_path)) {
        throw unusable(sink->choice, "the path is too long");
    }
    sink->address.sun_family = AF_UNIX;
    memcpy(sink->address.sun_path, path.c_str(), path.size() + 1);
    sink->owned = unique_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!sink->owned.valid()) throw unusable(sink->choice, strerror(errno));
}

static std::unique_ptr<trace_sink> open_sink(std::string_view choice) {
    std::string_view word = choice.substr(0, choice.find(':'));
    std::string rest(word.size() == choice.size() ? "" : choice.substr(word.size() + 1));
    auto sink = std::make_unique<trace_sink>();
    sink->choice = choice;
    if (choice.empty() || choice == "none") {
        sink->kind = sink_kind::none;
    } else if (choice == "stderr") {
        sink->kind = sink_kind::stream;
    } else if (choice == "syslog") {
        sink->kind = sink_kind::system_log;
    } else if (word == "file" && !rest.empty()) {
        sink->kind = sink_kind::stream;
        sink->owned = open_file(choice, rest);
    } else if (word == "journal") {
        sink->kind = sink_kind::journal;
        open_journal(sink.get(), rest.empty() ? JOURNAL_SOCKET : rest);
    } else {
        throw unusable(choice, "use none, stderr, file:<path>, syslog or journal");
    }
    sink->fd = sink->owned.valid() ? sink->owned.get() : STDERR_FILENO;
    return sink;
}

static void update_threshold() {
    const trace_sink *sink = active.load();
    bool silent = sink == nullptr || sink->kind == sink_kind::none;
    trace_threshold.store(silent ? DROP_ALL : state().level.value_or(TRCD_FAILURE));
}

// However many files are chosen in turn, one is open; a line that is being written meanwhile goes to
// one of the two. The same holds for sockets.
static void share_descriptor(trace_sink *sink) {
    if (!sink->owned.valid()) return;
    for (const auto &known : state().known) {
        if (known->kind != sink->kind || !known->owned.valid()) continue;
        dup3(sink->fd, known->fd, O_CLOEXEC);
        sink->owned = unique_fd();
        sink->fd = known->fd;
        return;
    }
}

static void activate(std::unique_ptr<trace_sink> sink) {
    share_descriptor(sink.get());
    for (const auto &known : state().known) {
        if (known->choice != sink->choice) continue;
        active.store(known.get());
        return;
    }
    state().known.push_back(std::move(sink));
    active.store(state().known.back().get());
}

// The environment's level, unless the program chose one.
static void load_level() {
    {
        std::lock_guard guard(fork_mutex());
        if (state().level) return;
    }
    int64_t level = environment_number("KEYVIEW_TRACE_LEVEL", TRCD_FAILURE, HIGHEST_LEVEL);
    std::lock_guard guard(fork_mutex());
    if (!state().level) state().level = level;
}

void set_trace_sink(std::string_view choice) {
    std::unique_ptr<trace_sink> sink = open_sink(choice);
    load_level();
    std::lock_guard guard(fork_mutex());
    activate(std::move(sink));
    state().loaded = true;
    update_threshold();
}

void set_trace_level(int32_t level) {
    std::lock_guard guard(fork_mutex());
    state().level = level;
    if (state().loaded) update_threshold();
}

void load_trace_settings() {
    {
        std::lock_guard guard(fork_mutex());
        if (state().loaded) return;
        state().loaded = true;
        update_threshold();  // silent if one of the settings is refused
    }
    load_level();
    std::unique_ptr<trace_sink> sink = open_sink(environment_text("KEYVIEW_TRACE"));
    std::lock_guard guard(fork_mutex());
    if (active.load() == nullptr) activate(std::move(sink));
    update_threshold();
}

// ---- Lines --------------------------------------------------------------------------------------

static void append_time(std::string *line) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts = {};
    gmtime_r(&now.tv_sec, &parts);
    char text[64];
    size_t length = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    (void)snprintf(text + length, sizeof(text) - length, ".%06ldZ ", now.tv_nsec / 1000);
    *line += text;
}

static void write_stream(const trace_sink &sink, std::string_view component, int32_t level,
                         std::string_view text) {
    std::string line;
    append_time(&line);
    append_escaped(&line, program_invocation_short_name);
    line += "[" + std::to_string(getpid()) + "] ";
    append_escaped(&line, component);
    line += " " + std::to_string(level) + ": ";
    append_escaped(&line, text);
    line += "\n";
    // One write, so that lines of several processes never mix. A failed write is not repeated.
    ssize_t ignored = write(sink.fd, line.data(), line.size());
    (void)ignored;
}

static int priority(int32_t level) {
    if (level <= TRCD_FAILURE) return LOG_ERR;
    return level <= TRCD_REGISTRATION ? LOG_NOTICE : LOG_DEBUG;
}

// The journal's own protocol: a field a line in one datagram. No value holds a line feed here.
static void write_journal(const trace_sink &sink, std::string_view component, int32_t level,
                          std::string_view text) {
    std::string entry = "PRIORITY=" + std::to_string(priority(level));
    entry += "\nKEYVIEW_LEVEL=" + std::to_string(level);
    entry += "\nKEYVIEW_COMPONENT=";
    append_escaped(&entry, component);
    entry += "\nSYSLOG_IDENTIFIER=";
    append_escaped(&entry, program_invocation_short_name);
    entry += "\nMESSAGE=";
    append_escaped(&entry, text);
    entry += "\n";
    auto *address = reinterpret_cast<const sockaddr *>(&sink.address);
    (void)sendto(sink.fd, entry.data(), entry.size(), MSG_NOSIGNAL, address, sizeof(sink.address));
}

static void write_system_log(std::string_view component, int32_t level, std::string_view text) {
    std::string line;
    append_escaped(&line, component);
    line += ": ";
    append_escaped(&line, text);
    syslog(priority(level), "%s", line.c_str());
}

void write_trace_line(std::string_view component, int32_t level, std::string_view text) noexcept {
    int saved = errno;
    const trace_sink *sink = active.load();
    try {
        sink_kind kind = sink == nullptr ? sink_kind::none : sink->kind;
        if (kind == sink_kind::stream) write_stream(*sink, component, level, text);
        if (kind == sink_kind::system_log) write_system_log(component, level, text);
        if (kind == sink_kind::journal) write_journal(*sink, component, level, text);
    } catch (const std::exception &) {
        // No memory for a line: it is lost, and the program goes on.
    }
    errno = saved;
}

}  // namespace keyview::host
