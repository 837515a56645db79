// See metrics.h.
#include "ctl/serve/metrics.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace keyview::ctl {

void metrics::observe(const std::string &call, double seconds) {
    const auto above = std::lower_bound(std::begin(BOUNDS), std::end(BOUNDS), seconds);
    const std::lock_guard guard(mutex_);
    histogram &of_call = calls_[call];
    ++of_call.counts[static_cast<size_t>(above - std::begin(BOUNDS))];
    of_call.sum += seconds;
}

void metrics::count_answer(unsigned status) {
    const std::lock_guard guard(mutex_);
    ++answers_[status];
}

void metrics::note_registry(bool healthy) {
    const std::lock_guard guard(mutex_);
    healthy_ = healthy;
}

// A number of a row of "status", 0 where it is not known.
static int64_t number_in(const view &row, std::string_view name) {
    for (const auto &[field, value] : std::get<view_fields>(row.value)) {
        const auto *number = std::get_if<coded>(&value.value);
        if (field == name && number != nullptr) return number->code;
    }
    return 0;
}

void metrics::note_read(const overview &cluster) {
    const std::lock_guard guard(mutex_);
    revision_ = cluster.revision;
    ++reads_;
    healthy_ = true;
    states_ = {};
    for (const char *kind : {"databases", "instances", "services"})
        states_[kind] = {{"enabled", 0}, {"disabled", 0}};
    states_["databases"]["unreadable"] = 0;
    for (const overview::database &one : cluster.databases) {
        const bool readable = one.record.value.index() != 0;
        const char *state = number_in(one.row, "enabled") != 0 ? "enabled" : "disabled";
        ++states_["databases"][readable ? state : "unreadable"];
        for (const char *kind : {"instances", "services"}) {
            const int64_t enabled = number_in(one.row, std::string(kind) + "_enabled");
            states_[kind]["enabled"] += enabled;
            states_[kind]["disabled"] += number_in(one.row, kind) - enabled;
        }
    }
    findings_ = {{"error", 0}, {"warning", 0}};
    for (const admin::finding &found : cluster.lint.findings)
        ++findings_[found.row->severity];
}

// ---- The text -----------------------------------------------------------------------------------

static std::string decimal(double number) {
    char text[32];
    (void)snprintf(text, sizeof text, "%.9g", number);  // it fits
    return text;
}

static std::string metric_head(const std::string &name, const char *type, const char *help) {
    constexpr std::string_view UNIT = "_seconds";
    const bool timed =
        name.size() > UNIT.size() && name.compare(name.size() - UNIT.size(), name.npos, UNIT) == 0;
    std::string out = "# TYPE " + name + " " + type + "\n";
    if (timed) out += "# UNIT " + name + " seconds\n";
    return out.append("# HELP ").append(name).append(" ").append(help).append("\n");
}

static std::string metric_line(const std::string &name, const std::string &label,
                               const std::string &value, const std::string &number) {
    const std::string labels = label.empty() ? "" : "{" + label + "=\"" + value + "\"}";
    return name + labels + " " + number + "\n";
}

static std::string gauge(const std::string &name, const char *help, const std::string &number) {
    return metric_head(name, "gauge", help) + metric_line(name, "", "", number);
}

std::string metrics::text(size_t connections, size_t followers) const {
    const std::lock_guard guard(mutex_);
    std::string out = metric_head("keyview", "info", "The version of the server.") +
                      metric_line("keyview_info", "version", KEYVIEW_VERSION, "1");
    out += gauge("keyview_registry_up", "Whether the registry can be read.", healthy_ ? "1" : "0");
    out += gauge("keyview_revision", "The revision of the tree that was read last.",
                 std::to_string(revision_));
    for (const auto &[kind, states] : states_) {
        const std::string name = "keyview_" + kind,
                          help = "How many " + kind + " there are, by their state.";
        out += metric_head(name, "gauge", help.c_str());
        for (const auto &[state, count] : states)
            out += metric_line(name, "state", state, std::to_string(count));
    }
    out += metric_head("keyview_findings", "gauge", "What lint finds, by its severity.");
    for (const auto &[severity, count] : findings_)
        out += metric_line("keyview_findings", "severity", severity, std::to_string(count));
    auto add_histogram = [&](const std::string &name, const std::string &call,
                             const histogram &times) {
        const std::string label = call.empty() ? "" : "call=\"" + call + "\",";
        const std::string alone = call.empty() ? "" : "{call=\"" + call + "\"}";
        uint64_t sum = 0;
        for (size_t n = 0; n < times.counts.size(); ++n) {
            sum += times.counts[n];
            const std::string bound = n < std::size(BOUNDS) ? decimal(BOUNDS[n]) : "+Inf";
            out.append(name).append("_bucket{").append(label).append("le=\"").append(bound);
            out.append("\"} ").append(std::to_string(sum)).append("\n");
        }
        out += name + "_count" + alone + " " + std::to_string(sum) + "\n" + name + "_sum" + alone +
               " " + decimal(times.sum) + "\n";
    };
    out += metric_head("keyview_call_seconds", "histogram", "How long calls of the registry take.");
    for (const auto &[call, times] : calls_)
        if (call != LOCK_WAIT) add_histogram("keyview_call_seconds", call, times);
    const auto waits = calls_.find(LOCK_WAIT);
    out += metric_head("keyview_lock_wait_seconds", "histogram",
                       "How long the lock of a database is waited for.");
    add_histogram("keyview_lock_wait_seconds", "",
                  waits == calls_.end() ? histogram() : waits->second);
    out += metric_head("keyview_reads", "counter", "How often the cluster was read.") +
           metric_line("keyview_reads_total", "", "", std::to_string(reads_));
    out += metric_head("keyview_http_answers", "counter", "Answers to requests, by their status.");
    for (const auto &[status, count] : answers_)
        out += metric_line("keyview_http_answers_total", "status", std::to_string(status),
                           std::to_string(count));
    out += gauge("keyview_http_connections", "Open connections.", std::to_string(connections));
    out += gauge("keyview_http_followers", "Connections that follow changes.",
                 std::to_string(followers));
    out += gauge("keyview_start_time_seconds", "When the server began, since the epoch.",
                 std::to_string(begun_));
    return out + "# EOF\n";
}

}  // namespace keyview::ctl
