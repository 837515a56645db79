// Values, names and counts that no well-kept registry holds: the library keeps within its blocks
// and still returns what can be read. A sanitizer sees the overruns.
#include <algorithm>
#include <climits>
#include <cstring>
#include <set>

#include <gtest/gtest.h>

#include "operations.h"

// ---- Lies ---------------------------------------------------------------------------------------

using lie = void (*)(fake_answer *);

static void full_buffer(fake_answer *given) {
    given->result = 0;
    given->bytes = std::string(given->capacity, 'x');
    given->size = given->capacity;
}

static const lie VALUE_LIES[] = {
    full_buffer,
    [](fake_answer *given) { full_buffer(given), ++given->size; },
    [](fake_answer *given) { full_buffer(given), given->size = UINT_MAX; },
    [](fake_answer *given) { given->size = 0, given->bytes.clear(); },
    [](fake_answer *given) { given->size = 1, given->bytes = "T"; },
    [](fake_answer *given) { given->size = 9, given->bytes = "AVAILABLE"; },
    [](fake_answer *given) { given->size = 9, given->bytes = "PREFERRED"; },
    [](fake_answer *given) { given->result = 9, given->size = 0; },
    [](fake_answer *given) { given->result = 9, given->size = UINT_MAX; },
    [](fake_answer *given) { given->result = 9, given->size = INT_MAX; },
    [](fake_answer *given) { given->result = 9, given->size = given->capacity + 100; },
};
static const lie NAME_LIES[] = {
    full_buffer,
    [](fake_answer *given) { full_buffer(given), ++given->size; },
    [](fake_answer *given) { given->size = UINT_MAX; },
    [](fake_answer *given) { given->size = 0; },
    [](fake_answer *given) { given->size = 0, given->bytes.assign(1, '\0'); },
    [](fake_answer *given) { given->bytes.resize(given->size); },
    [](fake_answer *given) { given->last = -5; },
    [](fake_answer *given) { given->last = INT_MIN; },
    [](fake_answer *given) { given->last = INT_MAX; },
    [](fake_answer *given) { given->last = 1000; },
};

// Falsifies the nth read, and all later ones if it concerns a value. False past the last.
static bool survives(const operation &op, const std::string &call, lie told, int nth) {
    test_host host(CLUSTER);
    int count = 0;
    host.bend = [&](const fake_event &event, fake_answer *given) {
        if (event.call != call) return;
        ++count;
        if (count == nth || (count > nth && call == "get")) told(given);
    };
    int32_t rc = op.run(host).rc;
    EXPECT_TRUE(rc <= PRSR_ERR_REGISTRY || rc == PRSR_ERR_ROLE) << op.name << " " << rc;
    return count >= nth;
}

TEST(Hostile, LiesOfTheRegistryAreSurvived) {
    for (const operation &op : OPERATIONS) {
        for (lie told : VALUE_LIES) {
            for (int nth = 1; survives(op, "get", told, nth); ++nth) {
            }
        }
        for (lie told : NAME_LIES) {
            for (int nth = 1; survives(op, "enum", told, nth); ++nth) {
            }
        }
    }
}

using bend = void (*)(const fake_event &, fake_answer *);

static void nothing(const fake_event & /*event*/, fake_answer * /*given*/) {}

// Each operation gives the same with one bend as with the other.
static void expect_the_same(bend one, bend other = nothing) {
    for (const operation &op : OPERATIONS) {
        test_host exact(CLUSTER), host(CLUSTER);
        fake_current = &exact;
        exact.bend = other;
        fields expected = op.run(exact).out;
        fake_current = &host;
        host.bend = one;
        EXPECT_EQ(op.run(host).out, expected) << op.name;
        EXPECT_EQ(host.values, exact.values) << op.name;
    }
}

// Allowed to a registry: to report more than the length of a name.
TEST(Hostile, ReportedLengthOfANameMayExceedIt) {
    expect_the_same([](const fake_event &event, fake_answer *given) {
        if (event.call == "enum" && given->result == 0) given->size += 7;
    });
}

TEST(Hostile, ANameNeedsNoZeroByteBehindIt) {
    expect_the_same([](const fake_event &event, fake_answer *given) {
        if (event.call != "enum" || given->result != 0) return;
        given->bytes.resize(given->size);
        given->bytes.resize(given->capacity, 'x');
    });
}

TEST(Hostile, ANameThatIsNotWrittenIsEmpty) {
    expect_the_same(
        [](const fake_event &event, fake_answer *given) {
            if (event.call == "enum" && event.nth > 1) given->bytes.clear();
        },
        [](const fake_event &event, fake_answer *given) {
            if (event.call == "enum" && event.nth > 1) given->bytes.assign(1, '\0');
        });
}

// Whatever a failed read writes, nothing of it is handed out.
TEST(Hostile, AFailedReadLeavesNothing) {
    for (const operation &op : OPERATIONS) {
        fields expected;
        bool read = true;
        for (int nth = 1; read; ++nth) {
            for (const bool garbage : {false, true}) {
                test_host host(CLUSTER);
                int count = 0;
                host.bend = [&](const fake_event &event, fake_answer *given) {
                    if (event.call != "get" || ++count != nth) return;
                    given->result = 1;
                    given->bytes.assign(garbage ? given->capacity : 0, 'x');
                };
                fields out = op.run(host).out;
                if (garbage) EXPECT_EQ(out, expected) << op.name << " " << nth;
                expected = out;
                read = count >= nth;
            }
        }
    }
}

// A failed request for the text of a failure leaves nothing to read but an empty text.
TEST(Hostile, FailureWithoutTextIsReported) {
    test_host host(ONE_DATABASE);
    host.fail("last_error", "", 0, 1);
    EXPECT_EQ(run("prsr_get_domain", host).rc, PRSR_ERR_REGISTRY);
    EXPECT_EQ(host.lines("log", "0 KVT error code : ").back(), "0 KVT error code : 0");
    EXPECT_EQ(host.lines("log", "0 KVT error msg : ").back(), "0 KVT error msg : ");
}

// ---- Values that fill their buffers -------------------------------------------------------------

static const char *const STRINGS[] = {
    "$D.DOMAIN",      "$D.SPFILE", "$D.ENABLED",  "$D.DB_CLU_ALIAS.IP", "$I1.NODE",
    "$I1.ENABLED",    "$T1.TYPE",  "$T2.ENABLED", "$S.ENABLED",         "$S.RCNPOLICY",
    "$S.ENVIRONMENT", "$D.ROLE",   "$E.SPFILE",   "$E.ENABLED",         "$N.TALVEN_HOME"};

// Each operation on the cluster as it is prepared, without memory for one block after the other.
template <typename preparation>
static void fail_each_allocation(const preparation &prepare) {
    for (const operation &op : OPERATIONS) {
        bool fired = true;
        for (int nth = 1; fired; ++nth) {
            test_host host(CLUSTER);
            prepare(&host);
            host.fail("alloc", "", nth, 1);
            op.run(host);
            fired = host.fired();
        }
    }
}

// A text that fills its buffer may cost a block of its own, which may be one too many.
TEST(Hostile, MemoryEndsBesideValuesWithoutTheirZeroByte) {
    for (size_t size : {64u, 1024u}) {
        fail_each_allocation([&](test_host *host) {
            for (const char *key : STRINGS)
                host->store(key, std::string(size, 'v'));
        });
    }
}

// A list of one has no second element to release.
TEST(Hostile, MemoryEndsBesideAListOfOne) {
    fail_each_allocation([](test_host *host) {
        for (const char *key : {"$I2", "$T2", "$T3"})
            host->remove(expanded(key));
    });
}

// Only its length distinguishes a value that fills its buffer from a longer string.
TEST(Hostile, TheTraceShowsAFullValueWhole) {
    const std::string full(1024, 'v');
    test_host host(ONE_DATABASE);
    host.store("$D.ENABLED", full);
    run("prsr_fetch_db_config", host);
    run("prsr_get_db_enabled", host);
    const std::string shown = joined(host.lines("log", "4 "));
    EXPECT_NE(shown.find("prsr_fetch_db_config: value is : " + full + "\n"), std::string::npos);
    EXPECT_NE(shown.find("value [" + full + "]\n"), std::string::npos);
}

// ---- Names that fill their paths ----------------------------------------------------------------

static std::string replaced(std::string text, const std::string &from, const std::string &to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
        text.replace(at, from.size(), to);
    return text;
}

// What an operation opens while a database, an entry and a node have a name of that length, as if it
// were short: the name is not shown.
static std::vector<std::string> opened(const operation &op, size_t length, int32_t *rc) {
    const std::string name(length, 'n');
    test_host host(CLUSTER);
    for (const char *key : {"$D", "$E", "$N"}) {
        const std::string from = expanded(key), to = from.substr(0, from.rfind('.') + 1) + name;
        for (auto &[path, value] : std::map<std::string, std::string>(host.values)) {
            if ((path + ".").find(from + ".") == 0) host.put(to + path.substr(from.size()), value);
        }
    }
    caller by(host);
    by.db = by.stg = by.node = name.c_str();
    *rc = op.run(by).rc;
    std::vector<std::string> keys;
    for (const fake_event &event : host.events) {
        if (event.call == "open") keys.push_back(replaced(event.subject, name, "*"));
    }
    return keys;
}

// A path that does not fit ends an operation, whichever of its paths it is: nothing is opened that is
// cut. The lengths are those around which one of its paths fits just so.
TEST(Hostile, ANameThatFitsNoPathEndsTheOperation) {
    constexpr size_t LONGEST = 2047;
    for (const operation &op : OPERATIONS) {
        int32_t rc = 0, before = 0;
        const std::vector<std::string> whole = opened(op, 30, &before);
        if (opened(op, LONGEST, &rc) == whole) continue;  // its blocks have the size of the name
        std::set<size_t> lengths;
        for (const std::string &path : whole) {
            for (size_t more : {0U, 1U, 2U, 3U})
                lengths.insert(LONGEST - path.size() + more);
        }
        for (size_t length : lengths) {
            const std::vector<std::string> keys = opened(op, length, &rc);
            ASSERT_LE(keys.size(), whole.size()) << op.name << length;
            EXPECT_TRUE(std::equal(keys.begin(), keys.end(), whole.begin())) << op.name << length;
            EXPECT_TRUE(rc == before || rc == PRSR_ERR_ARGUMENT) << op.name << length << " " << rc;
            before = rc;
        }
    }
}

// ---- Multi-values -------------------------------------------------------------------------------

// The meaning of a multi-value, computed in another way than the library's: the strings before the
// first empty one, in as many slots as there are zero bytes less one.
static std::string meant(const std::string &value, long slots) {
    std::string text = slots > 0 ? "" : "null";
    bool ended = false;
    size_t at = 0;
    for (long i = 0; i < slots; ++i) {
        size_t zero = value.find('\0', at);
        ended = ended || zero == at;
        text += (i == 0 ? "" : ",") + (ended ? "-" : value.substr(at, zero - at));
        at = zero + 1;
    }
    return text;
}

static void read_list(const std::string &value) {
    SCOPED_TRACE(fake_escaped(value));
    long slots = std::count(value.begin(), value.end(), '\0') - 1;
    test_host host(ONE_DATABASE);
    host.store("$D.ENVIRONMENT", value);
    EXPECT_EQ(run("prsr_fetch_db_config", host).out["ENVIRONMENT"], meant(value, slots));
    EXPECT_EQ(host.lines("log", "4 prsr_get_multivalues: SUCCESS")[0],
              "4 prsr_get_multivalues: SUCCESS in getting value [" +
                  value.substr(0, value.find('\0')) + "]");
    std::string line = "4 prsr_get_multivalues: Number of strings = " + std::to_string(slots);
    EXPECT_EQ(host.lines("log", line).size(), value.empty() ? 0u : 1u);
}

TEST(Hostile, MultiValuesOfEveryShapeAreSplit) {
    for (size_t length = 0; length <= 7; ++length) {
        for (unsigned bits = 0; bits < 1u << length; ++bits) {
            std::string value(length, 'a');
            for (size_t i = 0; i < length; ++i)
                value[i] = (bits >> i & 1) ? '\0' : 'a';
            read_list(value);
        }
    }
    for (size_t length : {1020u, 1021u, 1022u, 1023u, 1024u, 1025u, 2047u, 2048u}) {
        for (std::string value : {"", "z", "zz", "zbz", "zbzz"}) {
            value.insert(0, std::string(length, 'a'));
            std::replace(value.begin(), value.end(), 'z', '\0');
            read_list(value);
        }
    }
}

// ---- Enumerations -------------------------------------------------------------------------------

// The first answer has the number of subkeys, true or not.
TEST(Hostile, FirstAnswerOfAnEnumerationRules) {
    static const struct {
        int32_t result, last;
        int32_t fetch_rc;          // of a fetch whose instances or services are enumerated so
        const char *count, *list;  // of instances or services; of databases or service instances
    } ANSWERS[] = {
        {16, -1, PRSR_SUCCESS, "null", ""}, {16, 1, PRSR_SUCCESS, "null", ""},
        {0, -1, PRSR_SUCCESS, "null", ""},  {0, 0, PRSR_SUCCESS, "1", "A"},
        {0, 2, PRSR_ERR_REGISTRY, "", ""},  {0, INT_MAX, PRSR_ERR_MEMORY, "", ""},
    };
    for (auto &answer : ANSWERS) {
        for (const char *key : {"$D.INSTANCE", "$D.SERVICE", "$ROOT", "$D.SERVICE.a.INSTANCES"}) {
            SCOPED_TRACE(key + (" " + std::to_string(answer.result)) + " " +
                         std::to_string(answer.last));
            test_host host(
                "DATABASE.DATABASES\n sales=A\n  INSTANCE\n   a=A\n   b=B\n  SERVICE\n"
                "   a=A\n    INSTANCES\n     a=A\n      TYPE=PREFERRED\n     b=B\n   b=B\n c=C\n");
            host.bend = [&](const fake_event &event, fake_answer *given) {
                if (event.call != "enum" || event.subject != expanded(key) || event.nth != 1)
                    return;
                given->result = answer.result;
                given->last = answer.last;
            };
            std::string list = run("prsr_list_db", host).out["list"];
            outcome got = run("prsr_fetch_db_config", host);
            bool in_fetch = key == std::string("$D.INSTANCE") || key == std::string("$D.SERVICE");
            EXPECT_EQ(got.rc, in_fetch ? answer.fetch_rc : PRSR_SUCCESS);
            std::string listed = got.out["SERVICE.a.preferred"] == "A:0" ? "A" : "";
            if (in_fetch && got.rc == PRSR_SUCCESS)
                EXPECT_EQ(got.out[key + strlen("$D.")], answer.count);
            if (!in_fetch) EXPECT_EQ(key == std::string("$ROOT") ? list : listed, answer.list);
        }
    }
}

TEST(Hostile, FirstAnswerRulesTheCascadeTheRosterAndTheWalkToo) {
    static const struct {
        int32_t result, last;
        int32_t cascade_rc;
        size_t written;  // flags of instances
        int32_t roster_rc;
        const char *count;
        const char *found;  // by a walk whose first instance is not the one
    } ANSWERS[] = {
        {16, -1, PRSR_SUCCESS, 0, PRSR_SUCCESS, "0", ""},
        {16, 0, PRSR_ERR_REGISTRY, 0, PRSR_SUCCESS, "0", ""},
        {0, -1, PRSR_SUCCESS, 0, PRSR_SUCCESS, "0", "SALES2"},
        {0, 0, PRSR_SUCCESS, 1, PRSR_SUCCESS, "1", ""},
        {0, 3, PRSR_ERR_REGISTRY, 3, PRSR_SUCCESS, "3", "SALES2"},
        {0, INT_MAX, PRSR_ERR_REGISTRY, 3, PRSR_ERR_MEMORY, "0", "SALES2"},
    };
    for (auto &answer : ANSWERS) {
        SCOPED_TRACE(std::to_string(answer.result) + " " + std::to_string(answer.last));
        test_host host(CLUSTER);
        host.bend = [&](const fake_event &event, fake_answer *given) {
            if (event.call != "enum" || event.nth != 1) return;
            given->result = answer.result;
            given->last = answer.last;
        };
        EXPECT_EQ(run("prsr_set_service_enabled", host).rc, answer.cascade_rc);
        EXPECT_EQ(host.lines("set", "").size(), 1 + answer.written);
        host.forget();
        outcome roster = run("prsr_get_srv_instances", host);
        EXPECT_EQ(roster.rc, answer.roster_rc);
        EXPECT_EQ(roster.out["count"], answer.count);
        EXPECT_EQ(run("prsr_get_node_instance_name", host).out["buf"], answer.found);
    }
}
