// Fails each call of an operation once with each code; faults.txt has the expected result, report
// and untouched outputs.
#include <algorithm>
#include <cstring>
#include <sstream>

#include <gtest/gtest.h>

#include "operations.h"

struct fault_row {
    std::string call, subject, code, reporter, result, effect;
};

// "%" stands for any rest, at the beginning or at the end, and "#" for a digit.
static bool fits(const std::string &pattern, const std::string &text) {
    if (pattern[0] == '%') {
        size_t rest = pattern.size() - 1;
        return text.size() >= rest && text.substr(text.size() - rest) == pattern.substr(1);
    }
    for (size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '%') return true;
        if (i >= text.size() || (pattern[i] == '#' ? !isdigit(text[i]) : pattern[i] != text[i]))
            return false;
    }
    return pattern.size() == text.size();
}

// The rows of faults.txt by operation.
static std::map<std::string, std::vector<fault_row>> read_rows() {
    std::map<std::string, std::vector<fault_row>> rows;
    for (auto &[heading, lines] : sections("faults.txt")) {
        for (const std::string &line : lines) {
            fault_row row;
            std::istringstream words(line);
            words >> row.call >> row.subject >> row.code >> row.reporter >> row.result;
            std::getline(words >> std::ws, row.effect);
            rows[heading].push_back(row);
        }
    }
    return rows;
}

static fault_row find_row(const std::string &operation, const fake_event &call, std::string subject,
                          int32_t code) {
    if (call.call == "alloc" && subject == operation) subject = "self";
    static auto rows = read_rows();
    for (const std::string &heading : {operation, std::string("everything")}) {
        for (const fault_row &row : rows[heading]) {
            size_t at = row.subject.find('@');
            if (("|" + row.call + "|").find("|" + call.call + "|") != std::string::npos &&
                (row.code == "*" || stoi(row.code) == code) &&
                fits(row.subject.substr(0, at), subject) &&
                (at == std::string::npos || stoi(row.subject.substr(at + 1)) == call.nth)) {
                return row;
            }
        }
    }
    ADD_FAILURE() << "no row for " << call.call << " " << subject;
    return {"", "", "", "-", "ok", "?"};
}

static fields changed(fields out, const std::string &effect, const std::string &key) {
    std::istringstream words(effect);
    for (std::string word; words >> word;) {
        size_t sign = word.find('&');
        if (sign != std::string::npos) word.replace(sign, 1, key);
        size_t equals = word.find('=');
        if (word[0] != '-') out[word.substr(0, equals)] = word.substr(equals + 1);
        for (auto field = out.begin(); word[0] == '-' && field != out.end();) {
            bool below = (field->first + ".").find(word.substr(1) + ".") == 0;
            field = below ? out.erase(field) : std::next(field);
        }
    }
    return out;
}

static void expect_effect(const outcome &got, const fields &base, const std::string &effects,
                          const std::string &path) {
    std::string key;
    for (const char *above : {"$D.", "$E.", "$N."}) {
        std::string start = expanded(above);
        if (path.compare(0, start.size(), start) == 0) key = path.substr(start.size());
    }
    std::istringstream alternatives(effects + "|");
    fields expected;
    for (std::string effect; std::getline(alternatives, effect, '|');) {
        expected = changed(base, effect, key);
        if (effect == "?" || got.out == expected) return;
    }
    EXPECT_EQ(got.out, expected);
}

// The failure lines that the success does not have too, but for those that only hand a loader's
// code on.
static std::vector<std::string> new_failure_lines(const test_host &host, int32_t rc,
                                                  const std::vector<std::string> &usual) {
    std::vector<std::string> lines = host.lines("log", "0 ");
    auto from = std::mismatch(lines.begin(), lines.end(), usual.begin(), usual.end()).first;
    std::vector<std::string> found(from, lines.end());
    for (auto other = usual.rbegin(); other != usual.rend() && !found.empty(); ++other) {
        if (found.back() == *other) found.pop_back();
    }
    std::string handed_on = "failed, rc = " + std::to_string(rc);
    while (!found.empty() && found.back().find(handed_on) != std::string::npos)
        found.pop_back();
    return found;
}

// The function that logs a failed allocation, if its line names the requested size.
static std::string logs_allocation(const std::vector<std::string> &lines, const fake_event &call) {
    size_t colon = lines.empty() ? 0 : lines[0].find(':');
    std::string size = call.text.substr(strlen("alloc "));
    std::string byte =
        colon != 0 && lines[0].compare(2, colon - 2, "prsr_listdb") == 0 ? " byte" : " bytes";
    if (colon == 0) return "-";
    EXPECT_EQ(lines[0].substr(colon), ": failed to allocate " + size + byte);
    EXPECT_EQ(lines.size(), 1u) << joined(lines);
    return lines[0].substr(2, colon - 2);
}

// Trees to sweep over: the whole cluster, one whose values outgrow the first buffers, and one where
// much is missing or cannot be read.
static void whole(test_host *) {}

static void outgrown(test_host *host) {
    for (const char *key : {"$D.DOMAIN", "$E.SPFILE"})
        host->store(key, std::string(64, 'd') + '\0');
    for (const char *key : {"$D.ENVIRONMENT", "$I1.ENVIRONMENT", "$S.ENVIRONMENT", "$E.ENVIRONMENT",
                            "$N.ENVIRONMENT"}) {
        host->store(key, std::string(1500, 'e') + std::string(2, '\0'));
    }
}

static void wanting(test_host *host) {
    host->store("$D.SPFILE", std::string(2000, 's'));
    host->store("$N.VIP.NETMASK", std::string(1025, 'm'));
    for (const char *key : {"$D.POLICY", "$D.TALVEN_HOME", "$I1.NODE", "$T2.TYPE", "$S.RCNPOLICY",
                            "$E.SPFILE", "$N.VIP.IP"}) {
        host->values.erase(expanded(key));
    }
}

// Runs an operation. Its writes count as outputs.
static outcome run_and_compare(const operation &op, test_host *host) {
    auto before = host->values;
    outcome got = op.run(*host);
    for (auto &[path, value] : host->values) {
        if (value != before[path]) got.out[path] = value.c_str();
    }
    return got;
}

static void fail_call(const operation &op, void (*variant)(test_host *), const test_host &good,
                      const outcome &success, const fake_event &call, int nth, int32_t code) {
    SCOPED_TRACE(std::string(op.name) + ": " + call.text + " fails with " + std::to_string(code));
    test_host host(CLUSTER);
    variant(&host);
    host.fail("", "", nth, code);
    outcome got = run_and_compare(op, &host);
    EXPECT_TRUE(host.fired());

    auto lines = new_failure_lines(host, got.rc, good.lines("log", "0 "));
    bool allocation = call.call == "alloc";
    std::string subject = allocation ? logs_allocation(lines, call) : call.subject;
    fault_row row = find_row(op.name, call, subject.empty() ? "-" : subject, code);
    EXPECT_EQ(got.rc, CODES.at(row.result));
    const fields &base = got.rc == PRSR_SUCCESS ? success.out : op.untouched;
    expect_effect(got, base, row.effect, call.subject);
    std::vector<std::string> expected;
    if (row.reporter != "-") expected = report(row.reporter, call.call, call.subject, code);
    if (!allocation) EXPECT_EQ(joined(lines), joined(expected));
    bool looked = op.name == std::string("prsr_fetch_stg_config");  // before the lock
    if (call.call == "lock") EXPECT_EQ(host.lines("open", "").size(), looked ? 1u : 0u);
}

static void fail_each_call(const operation &op, void (*variant)(test_host *)) {
    test_host host(CLUSTER);
    variant(&host);
    outcome success = run_and_compare(op, &host);
    if (success.rc != PRSR_SUCCESS && variant == wanting) return;  // it requires the missing key
    ASSERT_EQ(success.rc, PRSR_SUCCESS) << op.name;
    int nth = 0;
    for (const fake_event &call : host.events) {
        nth += fake_can_fail(call.call);
        bool failed = call.text.find(" -> ") != std::string::npos && call.call != "enum";
        if (!fake_can_fail(call.call) || failed) continue;
        static const std::string REGISTRY = "open get set enum";
        for (int32_t code : {1, 4, 9, 16}) {
            if (code != 1 && REGISTRY.find(call.call) == std::string::npos) continue;
            fail_call(op, variant, host, success, call, nth, code);
        }
    }
}

TEST(FaultSweep, EachFailedCallIsAnsweredAsTheTableSays) {
    for (const operation &op : OPERATIONS) {
        for (auto *variant : {whole, outgrown, wanting})
            fail_each_call(op, variant);
    }
}

TEST(FaultSweep, NullTraceHandleChangesNothing) {
    for (const operation &op : OPERATIONS) {
        for (int nth = 0;; ++nth) {
            test_host with(CLUSTER);
            if (nth != 0) with.fail("", "", nth, 1);
            int32_t rc = op.run(with).rc;
            test_host without(CLUSTER, false);
            if (nth != 0) without.fail("", "", nth, 1);
            EXPECT_EQ(op.run(without).rc, rc);
            EXPECT_EQ(joined(without.lines("log", "")), joined(with.lines("log", "")));
            if (!with.fired()) break;
        }
    }
}

TEST(FaultSweep, BadContextIsRefusedBeforeAnythingElse) {
    alignas(16) static char no_tag[64] = {};
    alignas(16) static char other_tag[64] = "PRSRCFGB";
    for (const operation &op : OPERATIONS) {
        if (op.name == std::string("prsr_init")) continue;
        for (void *bad : {static_cast<void *>(nullptr), static_cast<void *>(no_tag),
                          static_cast<void *>(other_tag)}) {
            test_host host(CLUSTER);
            caller by(host);
            by.ctx = static_cast<prsr_ctx *>(bad);
            by.db = by.inst = by.srv = by.node = by.scope = by.stg = nullptr;
            outcome got = op.run(by);
            EXPECT_EQ(got.rc, PRSR_ERR_CONTEXT) << op.name;
            EXPECT_EQ(got.out, op.untouched) << op.name;
            EXPECT_TRUE(host.events.empty()) << op.name;
        }
    }
}

// The names are literals, so a write to one of them ends the test too.
TEST(FaultSweep, NamesInAnyCaseReachTheSameKeysAndLocks) {
    for (const operation &op : OPERATIONS) {
        std::vector<std::string> calls[2];
        for (int lower : {0, 1}) {
            test_host host(CLUSTER);
            caller by(host);
            if (lower) by.db = "sales", by.inst = "sales1", by.srv = "web.shop";
            if (lower) by.node = "node22", by.scope = "node1", by.stg = "mgr1";
            EXPECT_EQ(op.run(by).rc, PRSR_SUCCESS) << op.name;
            for (const fake_event &event : host.events) {
                if (event.call != "text" && event.call != "log") calls[lower].push_back(event.text);
            }
        }
        EXPECT_EQ(joined(calls[0]), joined(calls[1]));
    }
}
