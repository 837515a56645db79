// Diagnoses a cluster: the settings, each member, the leader, the alarms, the registry, a lock.
#include <set>

#include "cluster/cluster.h"
#include "cluster/cluster_settings.h"
#include "cluster/etcd_moment.h"
#include "cluster/tls_probe.h"

namespace keyview::host {

namespace {

constexpr std::chrono::milliseconds CHECK_WAIT{1000};  // for one member
constexpr int64_t DAY_S = 86400;
constexpr int64_t LAST_DAYS = 14;  // of a certificate, in which it should be renewed
constexpr int64_t MIB = int64_t{1} << 20;

class inspection {
  public:
    inspection(const cluster_settings &settings, const diagnosis_sink &sink)
        : settings_(settings), sink_(sink), calls_(settings) {}

    void run() {
        check_settings();
        for (size_t n = 0; n < settings_.members.size(); ++n)
            check_member(n);
        check_leader();
        diagnose("alarms", sink_, [&] { check_alarms(); });
        diagnose("registry", sink_, [&] { check_registry(); });
    }

  private:
    void check_settings() const {
        std::string text = std::to_string(settings_.members.size()) + " members, keys below " +
                           settings_.prefix + ", an answer within " +
                           std::to_string(settings_.answer_wait.count() / 1000) +
                           " s, a lease of " + std::to_string(settings_.lease_ttl.count()) + " s";
        if (!settings_.login_file.empty()) text += ", with a login from " + settings_.login_file;
        sink_({"configuration", health::good, text});
        if (settings_.members.size() == 1) {
            sink_({"configuration", health::doubtful,
                   "only one member is named: when it is down, no other one is tried"});
        }
        if (!settings_.tls && !settings_.login_file.empty()) {
            sink_({"configuration", health::doubtful,
                   "the password is sent unencrypted: use etcds:// with TLS"});
        }
    }

    void check_member(size_t n) {
        std::string subject = "member " + settings_.members[n];
        if (settings_.tls && !check_certificate(subject, settings_.members[n])) return;
        diagnose(subject, sink_, [&] {
            connect(n);
            steady::time_point start = steady::now();
            wire::StatusResponse status = calls_.status_of(n, start + CHECK_WAIT);
            std::string took = shown_ms(steady::now() - start);
            bool leads = status.leader() == status.header().member_id();
            if (leads) leader_ = settings_.members[n];
            if (status.leader() != 0) leaders_.insert(status.leader());
            const char *part = status.leader() == 0 ? "without a leader"
                               : leads              ? "leader"
                                                    : "follower";
            sink_({subject, status.leader() == 0 ? health::bad : health::good,
                   std::string(part) + ", answers in " + took + ", etcd " + status.version() +
                       ", database " + std::to_string(status.db_size() / MIB) + " MiB"});
        });
    }

    // Without TLS only a failure shows that the member may demand it.
    void connect(size_t n) {
        try {
            (void)calls_.status_of(n, steady::now() + CHECK_WAIT);
        } catch (const etcd_error &error) {
            std::string fault = probe_tls(settings_, settings_.members[n], CHECK_WAIT).fault;
            if (fault.empty()) throw;
            throw etcd_error(error.kind, error.reason, fault);
        }
    }

    // Returns whether calls to the member can succeed.
    bool check_certificate(const std::string &subject, const std::string &member) const {
        tls_facts seen = probe_tls(settings_, member, CHECK_WAIT);
        if (!seen.fault.empty()) {
            sink_({subject, health::bad, seen.fault});
        } else if (seen.seconds_left) {
            int64_t days = *seen.seconds_left / DAY_S;
            bool soon = days < LAST_DAYS;
            sink_({subject, soon ? health::doubtful : health::good,
                   "its certificate is good for " + std::to_string(days) + " days" +
                       (soon ? ": renew it" : "")});
        }
        return seen.fault.empty();
    }

    void check_leader() const {
        if (leaders_.size() == 1) {
            sink_({"leader", health::good,
                   leader_.empty() ? "a member that the URL does not name" : leader_});
        } else {
            sink_(
                {"leader", health::bad,
                 leaders_.empty()
                     ? "there is none: more than half of the members must run and reach each other"
                     : "the members do not agree on one: an election is under way, or they "
                       "belong to different clusters"});
        }
    }

    void check_alarms() {
        wire::AlarmResponse found = calls_.alarms(steady::now() + CHECK_WAIT);
        for (const wire::AlarmMember &one : found.alarms()) {
            bool full = one.alarm() == wire::NOSPACE;
            sink_(
                {"alarms", health::bad,
                 full
                     ? "NOSPACE: the database is full; compact and defragment it, then disarm the alarm"
                     : "CORRUPT: the members differ; repair the one that raised it"});
        }
        if (found.alarms().empty()) sink_({"alarms", health::good, "none"});
    }

    void check_registry() {
        layout keys(settings_.prefix);
        tree_part state = tree_state(&calls_, keys);
        if (!state.marker().empty()) {
            sink_({"registry", health::bad, half_applied_text(state.marker())});
        } else {
            sink_({"registry", health::good,
                   "can be read, revision " + std::to_string(state.tree_revision())});
        }
        backend registry = KEYVIEW_BACKEND_KIND.open(settings_.url, open_mode::existing);
        diagnose_locks(registry.locks.get(), sink_);
    }

    cluster_settings settings_;
    const diagnosis_sink &sink_;
    connection calls_;
    std::string leader_;
    std::set<uint64_t> leaders_;
};

}  // namespace

void diagnose_cluster(const std::string &url, const diagnosis_sink &sink) {
    inspection(settings_of(url), sink).run();
}

}  // namespace keyview::host
