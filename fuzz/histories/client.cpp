// A client of a registry that reports what it does and when, for the checks of histories.py. Each
// operation is reported twice, before and after, so that one that was killed is known to be open.
//
//   I time register r|w value     an operation begins
//   O time ok|open|no value       it ended: done, perhaps done, not done
//   L                             a lock was granted within an operation
//   K                             a change set that stopped half-way was ended
//   G lock x|s time               granted: exclusive, shared
//   H lock time                   still held at that time
//   S rev  C rev path value  U rev  X rev
//                                 a watch: starts after a revision, a change, complete up to a
//                                 revision, has a gap
//
// Usage: histories_client setup EPOCH
//        histories_client mixed|watch REPORT NAME SEED EPOCH_FILE [FAULT...]
//
// The registry is that of the environment. A fault is one that the client has on purpose.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>

#include "clock_steps.h"
#include "cluster.h"
#include "host/if/keyview_registry.h"
#include "model/locks.h"
#include "model/words.h"
#include "own_process.h"

namespace keyview::test {

static constexpr int64_t LOCK_WAIT_MS = 4000;
static constexpr int32_t GIVEN_UP =
    -1;  // what took too long, for a client that then calls it undone
static constexpr int64_t LONG_READ_MS = 600;  // for a client that then shows what it read first
static constexpr int COUNTERS = 4;
static constexpr int NARROW = 3,
                     WIDE = 150;  // instances of a record; more than a transaction holds

static std::string now() {
    return std::to_string(monotonic_ns());
}

static keyview_bytes bytes_of(const std::string &text) {
    return {text.data(), text.size()};
}

static std::string text_of(const keyview_bytes *value) {
    if (value == nullptr) return "-";
    return {value->data, strnlen(value->data, value->size)};
}

// ---- Content ------------------------------------------------------------------------------------

static std::string path_of(const std::string &database, const std::string &below) {
    return std::string(DB_ROOT) + "." + database + (below.empty() ? "" : ".") + below;
}

static std::string lock_name_of(const std::string &database) {
    return LOCK_HEAD + path_of(database, "");
}

using content = std::vector<std::pair<std::string, std::string>>;

// Each field that a version writes; all of them have its value.
static content record_of(const std::string &database, int instances, const std::string &version) {
    content all;
    for (const char *field : {KEY_HOME, KEY_SPFILE, KEY_DB_NAME, KEY_START_OPTIONS, KEY_DOMAIN})
        all.emplace_back(path_of(database, field), version);
    for (int n = 0; n < instances; ++n) {
        const std::string instance = std::string(KEY_INSTANCE) + "." + numbered("i", n) + ".";
        all.emplace_back(path_of(database, instance + KEY_NODE), version);
    }
    return all;
}

static int32_t apply_all(keyview_registry *registry, const content &all, keyview_lock *lock) {
    std::vector<std::string> values;  // with their zero bytes
    std::vector<keyview_change> changes;
    values.reserve(all.size());
    for (const auto &[path, value] : all) {
        values.push_back(value + '\0');
        changes.push_back({bytes_of(path), bytes_of(values.back()), 0});
    }
    return keyview_registry_apply(registry, changes.data(), changes.size(), &lock,
                                  lock == nullptr ? 0 : 1, 0);
}

// The databases of an epoch: new registers, so that what is open of earlier ones is forgotten.
static content databases_of(const std::string &epoch) {
    content all;
    const std::string flags = epoch + "f";
    const std::string service = std::string(KEY_SERVICE) + ".s0";
    const std::string member = service + "." + KEY_INSTANCES + ".i0";
    for (const auto &[below, value] : content{{"", flags},
                                              {KEY_ENABLED, FLAG_TRUE},
                                              {KEY_ROLE, ROLES[0]},
                                              {KEY_DOMAIN, "0"},
                                              {service, "s0"},
                                              {member, "i0"},
                                              {member + "." + KEY_TYPE, TYPE_PREFERRED},
                                              {member + "." + KEY_ENABLED, FLAG_TRUE}})
        all.emplace_back(path_of(flags, below), value);
    for (int n = 0; n < COUNTERS; ++n)
        all.emplace_back(path_of(epoch + numbered("c", n), KEY_DB_NAME), "0");
    for (const auto &[suffix, instances] : {std::pair{"r", NARROW}, {"w", WIDE}}) {
        const std::string database = epoch + suffix;
        all.emplace_back(path_of(database, ""), database);
        for (int n = 0; n < instances; ++n)
            all.emplace_back(path_of(database, std::string(KEY_INSTANCE) + "." + numbered("i", n)),
                             numbered("i", n));
        for (auto &field : record_of(database, instances, "0"))
            all.push_back(std::move(field));
    }
    return all;
}

// ---- A client -----------------------------------------------------------------------------------

// The registry in force, opened as soon as it answers.
static keyview_registry *open_patiently() {
    keyview_registry *registry = nullptr;
    while (keyview_registry_open(nullptr, 0, &registry) != 0)
        usleep(20000);
    return registry;
}

static std::unique_ptr<context> start_patiently() {
    for (;; usleep(20000)) {
        try {
            return std::make_unique<context>();
        } catch (const std::runtime_error &) {
            continue;
        }
    }
}

class mixed_client {
  public:
    mixed_client(const std::string &report, std::string name, unsigned seed, const char *epochs,
                 std::set<std::string> faults)
        : report_(report),
          name_(std::move(name)),
          random_(seed),
          faults_(std::move(faults)),
          registry_(open_patiently()),
          context_(start_patiently()) {
        epoch_ = static_cast<const volatile int *>(
            map_shared(open(epochs, O_RDONLY | O_CLOEXEC), sizeof(int), PROT_READ));
        if (!has("breaks-locks")) return;
        const std::string file = std::string(epochs) + ".taken";
        const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        require(ftruncate(fd, sizeof(int64_t) * COUNTERS) == 0, "a file of times");
        taken_ = static_cast<std::atomic<int64_t> *>(
            map_shared(fd, sizeof(int64_t) * COUNTERS, PROT_READ | PROT_WRITE));
    }

    void step() {
        epoch_now_ = numbered("e", *epoch_) + "-";
        // Without a lock, whose request would be the one that is lost.
        const bool plain = has("failed-is-undone") || has("failed-is-done") ||
                           has("reads-own-member") || has("small-changes");
        const int row = plain ? 3 : has("gives-up") || has("shows-old") ? 5 : any_of(10);
        if (row < static_cast<int>(std::size(KINDS))) return use(KINDS[row]);
        section(any_of(COUNTERS));
    }

  private:
    static void *map_shared(int fd, size_t size, int rights) {
        void *mapped = mmap(nullptr, size, rights, MAP_SHARED, fd, 0);
        require(mapped != MAP_FAILED, "no file to share");
        close(fd);
        return mapped;
    }

    // A register: what reads and what writes it, each in one operation.
    struct kind {
        const char *name;
        const char *database;
        int values;  // 0 if each write has a value of its own
        bool locks;  // the write takes a lock
        bool reader_locks;
        int32_t (mixed_client::*set)(const std::string &database, const std::string &value);
        int32_t (mixed_client::*get)(const std::string &database, std::string *value);
    };
    static const kind KINDS[6];

    int any_of(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }
    bool has(const char *fault) const { return faults_.count(fault) != 0; }
    bool now_and_then() { return any_of(8) == 0; }

    // ---- Registers ------------------------------------------------------------------------------

    void begin(const std::string &what, char mode, const std::string &value) const {
        report_.line("I\t" + now() + '\t' + what + '\t' + mode + '\t' + value);
    }

    void end(const char *outcome, const std::string &value) const {
        report_.line("O\t" + now() + '\t' + outcome + '\t' + value);
    }

    void use(const kind &one) {
        const std::string database = epoch_now_ + one.database;
        const std::string what = database + "." + one.name;
        if (any_of(100) < 55) {
            std::string value = std::exchange(believed_[what], "");
            begin(what, 'r', "");
            const stopwatch watch;
            bool done = !value.empty() || (this->*one.get)(database, &value) == 0;
            if (!done) recover();
            const bool old =
                has("stale-read") ? now_and_then() : has("shows-old") && watch.ms() > LONG_READ_MS;
            if (done && old && !seen_[what].empty()) value = seen_[what];
            end(done ? "ok" : "open", value);
            if (done && one.reader_locks) report_.line("L");
            if (seen_[what].empty()) seen_[what] = value;
            return;
        }
        std::string value = one.values > 0 ? std::to_string(any_of(one.values)) : own_value();
        begin(what, 'w', value);
        if (has("lost-write") && now_and_then()) return end("ok", value);
        while (has("never-ends"))
            pause();
        const int32_t rc = (this->*one.set)(database, value);
        const bool done = rc == 0;
        if (!done) recover();
        if (!done && has("failed-is-done")) believed_[what] = value;
        end(done ? "ok" : failed(rc), value);
        if (done && one.locks) report_.line("L");
    }

    // A write that failed may still take place, unless the client believes otherwise.
    const char *failed(int32_t rc) const {
        if (has("failed-is-undone") || rc == GIVEN_UP) return "no";
        return has("failed-is-done") ? "ok" : "open";
    }

    // What an administrator does if a writer died, or was stopped, within a large change.
    void recover() {
        if (keyview_host_last_error_kind() != KEYVIEW_FAILURE_CONTENT) return;
        if (keyview_registry_recover(registry_, any_of(2)) == 0) report_.line("K");
    }

    std::string own_value() { return name_ + "." + std::to_string(++values_); }

    int32_t set_enabled(const std::string &database, const std::string &value) {
        return prsr_set_db_enabled(status(), ctx(), database.c_str(), std::stoi(value));
    }
    int32_t get_enabled(const std::string &database, std::string *value) {
        int32_t enabled = -1;
        int32_t rc = prsr_get_db_enabled(status(), ctx(), database.c_str(), &enabled);
        *value = std::to_string(enabled);
        return rc;
    }

    int32_t set_of_service(const std::string &database, const std::string &value) {
        return prsr_set_service_instance_enabled(status(), ctx(), database.c_str(), "s0", "i0",
                                                 std::stoi(value));
    }
    int32_t get_of_service(const std::string &database, std::string *value) {
        int32_t enabled = -1;
        int32_t rc = prsr_get_service_instance_enabled(status(), ctx(), database.c_str(), "s0",
                                                       "i0", &enabled);
        *value = std::to_string(enabled);
        return rc;
    }

    int32_t set_role(const std::string &database, const std::string &value) {
        return prsr_set_db_role(status(), ctx(), database.c_str(), std::stoi(value));
    }
    int32_t get_role(const std::string &database, std::string *value) {
        int32_t role = -1;
        int32_t rc = prsr_get_db_role(status(), ctx(), database.c_str(), &role);
        *value = std::to_string(role);
        return rc;
    }

    int32_t set_domain(const std::string &database, const std::string &value) {
        return apply_all(registry_, {{path_of(database, KEY_DOMAIN), value}}, nullptr);
    }
    int32_t get_domain(const std::string &database, std::string *value) {
        if (has("reads-own-member")) return read_own_member(path_of(database, KEY_DOMAIN), value);
        char *domain = nullptr;
        int32_t rc = prsr_get_domain(status(), ctx(), database.c_str(), &domain);
        if (rc != PRSR_SUCCESS) return rc;
        *value = domain;
        (void)prsr_free_domain(ctx(), domain);
        return rc;
    }

    // As the first member of the URL has it, which does not ask the others.
    static int32_t read_own_member(const std::string &path, std::string *value) {
        const std::string url = getenv("KEYVIEW_REGISTRY");
        const size_t host = url.find("//") + 2, prefix = url.find('/', host);
        std::string key = url.substr(prefix) + "/kv/\\00" +
                          std::to_string(1 + std::count(path.begin(), path.end(), '.'));
        for (const char c : path + ".")
            key += c == '.' ? "\\001" : std::string(1, c);
        const std::string command =
            "ETCDCTL_API=3 etcdctl get --consistency=s --print-value-only "
            "--endpoints=" +
            url.substr(host, url.find_first_of(",/", host) - host) + " \"$(printf '" + key +
            "')\" 2>/dev/null";
        char read[128] = "";
        FILE *answer = popen(command.c_str(), "r");
        const bool any = answer != nullptr && fread(read, 1, sizeof(read) - 1, answer) > 0;
        const bool done = answer != nullptr && pclose(answer) == 0 && any;
        *value = read;
        return done ? PRSR_SUCCESS : PRSR_ERR_REGISTRY;
    }

    int32_t set_record(const std::string &database, const std::string &version) {
        content all = record_of(database, database.back() == 'w' ? WIDE : NARROW, version);
        const content half(all.begin() + 2, all.end());
        if (has("two-changes")) {
            all.resize(2);
            int32_t rc = apply_all(registry_, all, nullptr);
            usleep(300000);
            return rc != 0 ? rc : apply_all(registry_, half, nullptr);
        }
        const std::string name = lock_name_of(database);
        keyview_lock *lock = nullptr;
        int32_t rc = keyview_lock_acquire(registry_, bytes_of(name), 0, LOCK_WAIT_MS, &lock);
        if (rc == 0 && has("two-changes-under-lock")) {
            all.resize(2);
            rc = apply_all(registry_, all, lock);
            usleep(50000);
            all = half;
        }
        const auto begun = std::chrono::system_clock::now();
        if (rc == 0) rc = apply_all(registry_, all, lock);
        if (has("gives-up") &&
            std::chrono::system_clock::now() - begun > std::chrono::milliseconds(1500))
            rc = GIVEN_UP;
        keyview_lock_release(lock);
        return rc;
    }

    // The one version of all fields, or all that there are.
    int32_t get_record(const std::string &database, std::string *value) {
        prsr_cfg *cfg = nullptr;
        int32_t rc = prsr_fetch_db_config(status(), ctx(), database.c_str(), &cfg);
        if (rc != PRSR_SUCCESS) return rc;
        std::set<std::string> versions;
        auto add = [&](const char *text) { versions.insert(text == nullptr ? "" : text); };
        for (const char *text :
             {cfg->home, cfg->spfile, cfg->db_name, cfg->start_options, cfg->domain})
            add(text);
        for (uint32_t n = 0; n < cfg->instance_count; ++n)
            add(cfg->instances[n]->node);
        bool whole =
            cfg->instance_count == static_cast<uint32_t>(database.back() == 'w' ? WIDE : NARROW);
        (void)prsr_release_db_config(status(), ctx(), cfg);
        if (versions.count("") != 0) return PRSR_ERR_REGISTRY;  // a value could not be read
        for (const std::string &one : versions)
            *value += (value->empty() ? "" : "+") + one;
        if (!whole) *value += "+instances are missing";
        return PRSR_SUCCESS;
    }

    // ---- Locks ----------------------------------------------------------------------------------

    // Whether a client with the same fault holds the lock of a counter for longer than any does, by the
    // clock of the day.
    bool looks_abandoned(int counter) const {
        const int64_t since = taken_ == nullptr ? 0 : taken_[counter].load();
        return since != 0 && day_s() - since > 60;
    }

    void note_taken(int counter, int64_t time) {
        if (taken_ != nullptr) taken_[counter] = time;
    }

    static int64_t day_s() { return static_cast<int64_t>(time(nullptr)); }

    // Reads a counter and counts on under its lock.
    void section(int counter) {
        const std::string database = epoch_now_ + numbered("c", counter);
        const std::string name = lock_name_of(database);
        const bool shared = any_of(10) < 3;
        const bool takes_it = !has("no-lock") && !looks_abandoned(counter);
        keyview_lock *lock = nullptr;
        if (takes_it &&
            keyview_lock_acquire(registry_, bytes_of(name), shared, LOCK_WAIT_MS, &lock) != 0)
            return;
        note_taken(counter, day_s());
        report_.line("G\t" + name + (shared ? "\ts\t" : "\tx\t") + now());
        std::optional<int64_t> count = counted(database);
        for (int left = any_of(4); count && left >= 0; --left) {
            linger();
            confirm(name, lock);
            if (shared) {
                (void)counted(database);
            } else if (!count_on(database, ++*count, lock)) {
                break;
            }
        }
        confirm(name, lock);
        note_taken(counter, 0);
        keyview_lock_release(lock);
    }

    // Mostly short. A holder that trusts the clock of the day lingers by it.
    void linger() {
        int pause_ms = any_of(300) == 0 ? any_of(900) : any_of(3) == 0 ? any_of(4) : 0;
        if (has("forgets-loss") || has("clock-of-day") || has("unfenced") || has("breaks-locks"))
            pause_ms += 200;
        if (!has("clock-of-day")) {
            usleep(static_cast<useconds_t>(pause_ms) * 1000);
            return;
        }
        const auto day = std::chrono::system_clock::now() + std::chrono::milliseconds(pause_ms);
        for (stopwatch watch; std::chrono::system_clock::now() < day && watch.ms() < 6000;)
            usleep(1000);
    }

    void confirm(const std::string &name, const keyview_lock *lock) {
        const std::string time = now();  // before: what holds at the call held then
        const bool trusts =
            has("no-lock") || has("forgets-loss") || has("clock-of-day") || has("breaks-locks");
        if (trusts || keyview_lock_held(lock) != 0) report_.line("H\t" + name + '\t' + time);
    }

    std::optional<int64_t> counted(const std::string &database) const {
        const std::string path = path_of(database, KEY_DB_NAME);
        const keyview_part part = {bytes_of(path), KEYVIEW_DEPTH_KEY};
        std::string value = "-";
        auto take = [](void *arg, keyview_bytes, const keyview_bytes *found) {
            *static_cast<std::string *>(arg) = text_of(found);
        };
        begin(database + ".counter", 'r', "");
        int32_t rc = keyview_registry_read(registry_, &part, 1, 0, take, &value, nullptr);
        end(rc == 0 ? "ok" : "open", value);
        if (rc != 0) return std::nullopt;
        return strtoll(value.c_str(), nullptr, 10);
    }

    // A lock that was lost writes nothing; any other failure leaves it open.
    bool count_on(const std::string &database, int64_t to, keyview_lock *lock) {
        const std::string value = std::to_string(to) + ":" + own_value();
        begin(database + ".counter", 'w', value);
        if (has("unfenced")) lock = nullptr;
        int32_t rc = apply_all(registry_, {{path_of(database, KEY_DB_NAME), value}}, lock);
        end(rc == 0 ? "ok" : rc == KEYVIEW_FAILURE_LOCK ? "no" : "open", value);
        return rc == 0;
    }

    prsr_ctx *ctx() const { return context_->ctx; }
    char *status() const { return context_->status; }

    report_file report_;
    std::string name_;
    std::mt19937 random_;
    std::set<std::string> faults_;
    keyview_registry *registry_;
    std::unique_ptr<context> context_;
    const volatile int *epoch_ = nullptr;
    std::atomic<int64_t> *taken_ = nullptr;  // when each counter's lock was taken; 0 if it is not
    std::string epoch_now_;
    std::map<std::string, std::string> seen_;      // of a client that reads what was
    std::map<std::string, std::string> believed_;  // of one that reads what it failed to write
    int values_ = 0;
};

const mixed_client::kind mixed_client::KINDS[6] = {
    {"enabled", "f", 2, true, false, &mixed_client::set_enabled, &mixed_client::get_enabled},
    {"service", "f", 2, true, false, &mixed_client::set_of_service, &mixed_client::get_of_service},
    {"role", "f", 4, true, false, &mixed_client::set_role, &mixed_client::get_role},
    {"domain", "f", 0, false, false, &mixed_client::set_domain, &mixed_client::get_domain},
    {"record", "r", 0, true, true, &mixed_client::set_record, &mixed_client::get_record},
    {"record", "w", 0, true, true, &mixed_client::set_record, &mixed_client::get_record},
};

// ---- Watches ------------------------------------------------------------------------------------

static uint64_t present_revision(keyview_registry *registry) {
    const std::string root = ROOT;
    const keyview_part part = {bytes_of(root), KEYVIEW_DEPTH_KEY};
    uint64_t revision = 0;
    auto ignore = [](void *, keyview_bytes, const keyview_bytes *) {};
    while (keyview_registry_read(registry, &part, 1, 0, ignore, nullptr, &revision) != 0)
        usleep(20000);
    return revision;
}

static std::string change_line(uint64_t revision, const std::string &path,
                               const std::string &after) {
    return "C\t" + std::to_string(revision) + '\t' + path + '\t' + after + '\n';
}

static void watch(const std::string &report_path, unsigned seed,
                  const std::set<std::string> &faults) {
    report_file report(report_path);
    std::mt19937 random(seed);
    keyview_registry *registry = open_patiently();
    const std::string root = ROOT;
    uint64_t since = present_revision(registry);
    report.line("S\t" + std::to_string(since));
    for (;;) {
        std::vector<std::string> lines;
        auto take = [](void *arg, uint64_t revision, keyview_bytes path, const keyview_bytes *,
                       const keyview_bytes *after) {
            static_cast<std::vector<std::string> *>(arg)->push_back(
                change_line(revision, {path.data, path.size}, text_of(after)));
        };
        int32_t kept = 0;
        int32_t rc =
            keyview_registry_follow(registry, bytes_of(root), &since, 500, take, &lines, &kept);
        if (rc == KEYVIEW_FAILURE_CHANGED) {
            since = present_revision(registry);
            if (faults.count("hides-gap") == 0) report.line("X\t" + std::to_string(since));
            continue;
        }
        if (rc != 0) continue;
        if (faults.count("drops-change") != 0 && !lines.empty() && random() % 20 == 0)
            lines.erase(lines.begin() + static_cast<ptrdiff_t>(random() % lines.size()));
        if (faults.count("swaps-changes") != 0 && lines.size() > 1)
            std::swap(lines.front(), lines.back());
        std::string all;
        for (const std::string &line : lines)
            all += line;
        report.line(all + "U\t" + std::to_string(since));
    }
}

// ---- Roles --------------------------------------------------------------------------------------

static void set_up(const std::string &epoch) {
    keyview_registry *registry = nullptr;
    while (keyview_registry_open(nullptr, 1, &registry) != 0)
        usleep(20000);
    while (apply_all(registry, databases_of(epoch), nullptr) != 0)
        (void)keyview_registry_recover(registry, 0);
    keyview_registry_close(registry);
}

static int run(const std::vector<std::string> &words) {
    const std::string role = words.empty() ? "" : words[0];
    if (role == "setup" && words.size() == 2) {
        set_up(words[1]);
        return 0;
    }
    require(words.size() >= 5, "usage: histories_client setup|mixed|watch ...");
    const std::set<std::string> faults(words.begin() + 5, words.end());
    const auto seed = static_cast<unsigned>(std::stoul(words[3]));
    if (role == "watch") watch(words[1], seed, faults);
    mixed_client one(words[1], words[2], seed, words[4].c_str(), faults);
    for (;;)
        one.step();
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    keyview::test::take_clock_steps();
    try {
        return keyview::test::run({argv + 1, argv + argc});
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "histories_client: %s\n", error.what());
        return 1;
    }
}
