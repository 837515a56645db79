// history: who changed what and when.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>

#include "admin/nearest.h"
#include "ctl/change_view.h"
#include "ctl/command.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "ctl/text.h"
#include "model/folding.h"
#include "model/roots.h"

namespace keyview::ctl {

namespace {

struct history_options {
    std::string since;
    uint64_t limit = 0;  // 0 is none
};

// From where on changes are shown.
struct begin_of_history {
    uint64_t revision = 0;
    int64_t time_us = INT64_MIN;
};

}  // namespace

static constexpr int64_t SECOND_US = 1000000;

// "2h" before now; nothing for another text.
static std::optional<int64_t> time_before(const std::string &text) {
    static constexpr struct {
        char unit;
        int64_t seconds;
    } UNITS[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}, {'w', 604800}};
    char *end = nullptr;
    errno = 0;
    const double count = strtod(text.c_str(), &end);
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    for (const auto &row : UNITS) {
        bool sound = end != text.c_str() && std::string(end) == std::string(1, row.unit) &&
                     errno == 0 && count >= 0 && count < 1e6;
        if (sound) return now - static_cast<int64_t>(count * double(row.seconds) * SECOND_US);
    }
    return std::nullopt;
}

// "2026-11-26T12:00:03Z", with a fraction, with an offset such as +01:00, or a day alone, in UTC.
static std::optional<int64_t> time_at(const std::string &text) {
    tm utc = {};
    const char *rest = strptime(text.c_str(), "%Y-%m-%d", &utc);
    double fraction = 0;
    long offset_s = 0;
    if (rest != nullptr && *rest != '\0') {
        rest = strptime(rest, *rest == ' ' ? " %H:%M:%S" : "T%H:%M:%S", &utc);
        char *end = nullptr;
        if (rest != nullptr && *rest == '.') {
            fraction = strtod(rest, &end);
            rest = end;
        }
        tm zone = {};
        if (rest != nullptr && *rest != '\0') rest = strptime(rest, "%z", &zone);
        offset_s = zone.tm_gmtoff;
    }
    constexpr long WIDEST_OFFSET_S = 14 * 3600L;  // of the zones in use
    if (rest == nullptr || *rest != '\0' || std::labs(offset_s) > WIDEST_OFFSET_S)
        return std::nullopt;
    return (static_cast<int64_t>(timegm(&utc)) - offset_s) * SECOND_US +
           static_cast<int64_t>(fraction * SECOND_US);
}

static begin_of_history begin_in(const std::string &since) {
    begin_of_history out;
    if (since.empty()) return out;
    if (is_revision(since)) {
        out.revision = strtoull(since.c_str(), nullptr, 10);
        return out;
    }
    std::optional<int64_t> time = time_before(since);
    if (!time) time = time_at(since);
    if (!time) {
        throw tool_error{
            EXIT_USAGE, "the history cannot be shown", "",
            "--since " + since + " is no revision and no time",
            "give a revision such as 17, a time such as 2026-11-26T12:00:00Z, or a span "
            "such as 30m, 2h or 7d"};
    }
    out.time_us = *time;
    return out;
}

static std::string time_text(int64_t time_us) {
    char text[64];
    tm utc = {};
    auto seconds = static_cast<time_t>(time_us / SECOND_US);
    size_t size = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&seconds, &utc));
    (void)snprintf(text + size, sizeof text - size, ".%06dZ",
                   static_cast<int>(time_us % SECOND_US));  // it fits
    return text;
}

// The changes of a database alone; false if there is none.
static bool keep_within(const std::string &top, admin::past_change *one) {
    auto elsewhere = [&](const admin::key_change &key) { return !path_within(key.path, top); };
    auto &keys = one->changes;
    keys.erase(std::remove_if(keys.begin(), keys.end(), elsewhere), keys.end());
    return !keys.empty() || one->left_out > 0;
}

static view entry_view(const admin::past_change &one) {
    view_list changes;
    for (const admin::key_change &key : one.changes)
        changes.push_back(change_view(key));
    return {view_fields{{"revision", count_view(one.revision)},
                        {"time", {time_text(one.time_us)}},
                        {"user", {one.user}},
                        {"program", {one.program}},
                        {"process", count_view(one.process)},
                        {"host", {one.host}},
                        {"left_out", count_view(one.left_out)},
                        {"changes", {std::move(changes)}}}};
}

static std::string entry_for_people(const admin::past_change &one) {
    std::string out = "revision " + std::to_string(one.revision) + ", " + time_text(one.time_us) +
                      ", by " + escaped(one.user) + " with " + escaped(one.program) + ", process " +
                      std::to_string(one.process) + " on " + escaped(one.host) + "\n";
    for (const admin::key_change &key : one.changes)
        out += "  " + change_for_people(key) + "\n";
    if (one.left_out > 0) {
        out += "  and " + std::to_string(one.left_out) + " more keys, which are not kept\n";
    }
    return out;
}

static void remark_on_nothing(const std::string &database) {
    std::string meant;
    if (!database.empty() && !key_exists(database_key(database)))
        meant = nearest(database, registered_names(DB_ROOT));
    print_remark("no such change is kept" + (meant.empty() ? "" : "; did you mean " + meant + "?"));
}

static exit_code run_history(const tool &shared, const given_names &names,
                             const history_options &options) {
    const begin_of_history begin = begin_in(options.since);
    const std::string top = names[0].empty() ? "" : database_key(names[0]);
    std::vector<admin::past_change> found;
    attempt("the history cannot be shown", shared.registry, [&] {
        admin::registry::open().history(begin.revision, [&](admin::past_change &&one) {
            bool wanted = one.time_us >= begin.time_us && (top.empty() || keep_within(top, &one));
            if (wanted) found.push_back(std::move(one));
            return options.limit == 0 || found.size() < options.limit;
        });
    });
    if (shared.format == output_format::table) {
        std::string text;
        for (const admin::past_change &one : found)
            text += entry_for_people(one);
        write_result(text);
        if (found.empty()) remark_on_nothing(names[0]);
        return EXIT_DONE;
    }
    view_list rows;
    for (const admin::past_change &one : found)
        rows.push_back(entry_view(one));
    return show_result(shared.format, "history", "history", {std::move(rows)});
}

void add_history_command(CLI::App *app, tool *shared) {
    auto names = std::make_shared<given_names>();
    auto options = std::make_shared<history_options>();
    CLI::App *history =
        add_command(app, shared, "history",
                    "Show who changed what and when, the latest change first: the whole "
                    "registry, or a database",
                    [=] { return run_history(*shared, *names, *options); });
    add_arguments(history, shared, "[DB]", names);
    history->add_option("--since", options->since,
                        "Changes after this revision, or from this time on: "
                        "2026-11-26T12:00:00Z, 30m, 2h, 7d");
    history->add_option("--limit", options->limit, "No more than so many changes; 0 is no limit");
}

}  // namespace keyview::ctl
