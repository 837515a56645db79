// What happened to the locks of a cluster, in the order that the cluster itself gives to it: every
// event below a prefix by revision, followed while it happens; and a judge over it, who rebuilds
// the queues at each revision and knows nothing of how the locks work.
#pragma once

#include <unistd.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cluster/connection.h"
#include "cluster/layout.h"
#include "model/roots.h"

namespace keyview::test {

// A place in a queue, as its owner knows it.
struct lock_claim {
    std::string key;
    int64_t created = 0;
};

// A value says whose it is: "<name>\t<created>\t<place>".
inline std::string value_of_claim(const std::string &name, const lock_claim &mine) {
    return name + '\t' + std::to_string(mine.created) + '\t' + mine.key;
}

inline std::vector<std::string> split(const std::string &text) {
    std::vector<std::string> words;
    size_t at = 0;
    for (size_t end; (end = text.find('\t', at)) != text.npos; at = end + 1)
        words.push_back(text.substr(at, end - at));
    words.push_back(text.substr(at));
    return words;
}

class event_log {
  public:
    explicit event_log(const host::cluster_settings &settings)
        : calls_(settings), prefix_(settings.prefix + "/"), thread_([this] { follow(); }) {}
    event_log(const event_log &) = delete;
    event_log &operator=(const event_log &) = delete;
    ~event_log() {
        ended_ = true;
        if (thread_.joinable()) thread_.join();
    }

    // All events so far; it follows no further.
    const std::vector<host::wire::Event> &all() {
        if (thread_.joinable()) {
            mark_end();
            thread_.join();
        }
        return events_;
    }

    // Calls the sink with each event from a number on, and moves the number.
    template <typename sink>
    void visit(size_t *from, sink &&body) {
        std::lock_guard guard(mutex_);
        for (; *from < events_.size(); ++*from)
            body(events_[*from]);
    }

    // How many keys with that beginning were put and not yet deleted.
    size_t count(const std::string &beginning) {
        std::lock_guard guard(mutex_);
        std::set<std::string> there;
        for (const host::wire::Event &one : events_) {
            if (one.kv().key().compare(0, beginning.size(), beginning) != 0) continue;
            if (one.type() == host::wire::Event::PUT) there.insert(one.kv().key());
            if (one.type() == host::wire::Event::DELETE) there.erase(one.kv().key());
        }
        return there.size();
    }

  private:
    void mark_end() {
        host::wire::TxnRequest request;
        host::add_put(request.mutable_success(), end_, "");
        (void)calls_.txn(request, calls_.answer_end());
    }

    bool add(const host::wire::WatchResponse &response) {
        std::lock_guard guard(mutex_);
        for (const host::wire::Event &one : response.events()) {
            events_.push_back(one);
            if (one.kv().key() == end_) ended_ = true;
        }
        return !ended_;
    }

    void follow() {
        int64_t next = 1;
        while (!ended_) {
            host::key_range all = host::beginning_with(prefix_);
            host::wire::WatchCreateRequest what;
            what.set_key(all.begin);
            what.set_range_end(all.end);
            what.set_start_revision(next);
            try {
                auto end = host::steady::now() + std::chrono::seconds(2);
                calls_.follow(what, end, [this](const auto &response) { return add(response); });
            } catch (const host::host_error &) {
                usleep(20000);  // a member is down
            }
            if (!events_.empty()) next = events_.back().kv().mod_revision() + 1;
        }
    }

    host::connection calls_;
    std::string prefix_;
    std::string end_ = prefix_ + "end";
    std::mutex mutex_;
    std::vector<host::wire::Event> events_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

class lock_judge {
  public:
    explicit lock_judge(const std::string &prefix) : kv_(prefix + "/kv/"), lk_(prefix + "/lk/") {}

    // What processes told of themselves.
    void told_grant(int64_t revision, lock_claim mine) { grants_.emplace(revision, mine); }
    void told_set(std::string value) { told_sets_.insert(std::move(value)); }

    // What was wrong, a sentence each.
    std::vector<std::string> judge(const std::vector<host::wire::Event> &events) {
        auto grant = grants_.begin();
        for (size_t at = 0; at < events.size();) {
            int64_t revision = events[at].kv().mod_revision();
            for (; grant != grants_.end() && grant->first < revision; ++grant)
                look_at_grant(*grant);
            size_t end = at;
            while (end < events.size() && events[end].kv().mod_revision() == revision)
                ++end;
            // A write was compared with what was there before its transaction.
            for (size_t n = at; n < end; ++n)
                look_at_write(events[n]);
            for (; at < end; ++at)
                move_queues(events[at]);
        }
        for (; grant != grants_.end(); ++grant)
            look_at_grant(*grant);
        look_at_end();
        return std::move(wrong_);
    }

    size_t writes() const { return writes_; }

  private:
    struct place {
        bool exclusive;
        int64_t created;
    };
    using queue = std::map<std::string, place>;

    // "<lk><name>\0w/<id>" without "w/<id>".
    static std::string queue_of(const std::string &key) {
        return key.substr(0, key.find('\0') + 1);
    }
    static bool is_exclusive(const std::string &key) { return key[queue_of(key).size()] == 'w'; }

    bool is_below(const std::string &key, const std::string &beginning) const {
        return key.compare(0, beginning.size(), beginning) == 0;
    }

    // Why the lock is not that one's at present; "" if it is.
    std::string fault_of(const lock_claim &mine) {
        const queue &all = queues_[queue_of(mine.key)];
        auto own = all.find(mine.key);
        if (own == all.end() || own->second.created != mine.created) return "without its place";
        for (const auto &[key, other] : all) {
            bool conflicts = other.exclusive || own->second.exclusive;
            if (conflicts && other.created < mine.created) return "behind " + key;
        }
        return "";
    }

    void look_at_grant(const std::pair<const int64_t, lock_claim> &one) {
        std::string fault = fault_of(one.second);
        if (fault.empty()) return;
        complain("granted " + fault, one.second.key, one.first);
    }

    void look_at_write(const host::wire::Event &event) {
        if (!is_below(event.kv().key(), kv_)) return;
        if (is_below(event.kv().key(), kv_ + '\x01' + std::string(HISTORY_HEAD))) return;
        std::vector<std::string> words = split(event.kv().value());
        if (words.size() != 3) return;  // from before
        ++writes_;
        int64_t revision = event.kv().mod_revision();
        std::string fault = fault_of({words[2], std::stoll(words[1])});
        if (!fault.empty()) complain("wrote " + fault, words[2], revision);
        if (!covers(words[2], event.kv().key())) complain("wrote elsewhere", words[2], revision);
        bool first = written_.insert(event.kv().value()).second;
        if (!first) complain("wrote " + words[0] + " again", words[2], revision);
    }

    // Lock "LKRT.a" covers the keys of "a".
    bool covers(const std::string &place_key, const std::string &key) const {
        std::string name = queue_of(place_key).substr(lk_.size() + 5);
        name.back() = host::SEPARATOR;
        return key.compare(kv_.size() + 1, name.size(), name) == 0;
    }

    void move_queues(const host::wire::Event &event) {
        const std::string &key = event.kv().key();
        if (!is_below(key, lk_)) return;
        queue &all = queues_[queue_of(key)];
        if (event.type() == host::wire::Event::DELETE) {
            all.erase(key);
            return;
        }
        bool fresh = all.insert({key, {is_exclusive(key), event.kv().create_revision()}}).second;
        bool first = !fresh || places_.insert(key).second;
        if (!first) complain("took a place that was given up", key, event.kv().mod_revision());
    }

    void look_at_end() {
        for (const std::string &value : told_sets_) {
            if (written_.count(value) == 0) wrong_.push_back("never written: " + value);
        }
        for (const auto &one : queues_) {
            if (!one.second.empty()) complain("left", one.second.begin()->first, 0);
        }
    }

    void complain(const std::string &what, const std::string &key, int64_t revision) {
        std::string shown = key.substr(0, key.find('\0')) + " " + key.substr(queue_of(key).size());
        wrong_.push_back(shown + " " + what + " at revision " + std::to_string(revision));
    }

    std::string kv_;
    std::string lk_;
    std::multimap<int64_t, lock_claim> grants_;
    std::set<std::string> told_sets_;
    std::map<std::string, queue> queues_;
    std::set<std::string> places_;   // that ever were
    std::set<std::string> written_;  // values that ever were
    std::vector<std::string> wrong_;
    size_t writes_ = 0;
};

}  // namespace keyview::test
