// Values, names and counts that no well-kept registry holds: the library keeps within its blocks
// and still tells the best that can be told. A sanitizer sees the overruns.
#include <algorithm>
#include <climits>
#include <cstring>

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

// Tells one lie at the nth read, and from there on if it is about a value. False past the last.
static bool survives(const operation &op, const std::string &call, lie told, int nth) {
    test_host host(CLUSTER);
    int count = 0;
    host.bend = [&](const fake_event &event, fake_answer *given) {
        if (event.call != call) return;
        ++count;
        if (count == nth || (count > nth && call == "get")) told(given);
    };
    int32_t rc = op.run(host).rc;
    EXPECT_TRUE(rc == PRSR_SUCCESS || rc == PRSR_ERR_MEMORY || rc == PRSR_ERR_REGISTRY ||
                rc == PRSR_ERR_ARGUMENT)
        << op.name << " " << rc;
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

// What the registry may do: report more than the length of a name.
TEST(Hostile, ReportedLengthOfANameMayExceedIt) {
    for (const char *op : {"prsr_list_db", "prsr_fetch_db_config"}) {
        test_host host(CLUSTER);
        fields exact = run(op, host).out;
        host.bend = [](const fake_event &event, fake_answer *given) {
            if (event.call == "enum" && given->result == 0) given->size += 7;
        };
        EXPECT_EQ(run(op, host).out, exact);
    }
}

// A failed request for the text of a failure leaves nothing to read but an empty text.
TEST(Hostile, FailureWithoutTextIsReported) {
    test_host host(ONE_DATABASE);
    host.fail("last_error", "", 0, 1);
    EXPECT_EQ(run("prsr_get_domain", host).rc, PRSR_ERR_REGISTRY);
    EXPECT_EQ(host.lines("log", "0 KVT error msg : ").back(), "0 KVT error msg : ");
}

// ---- Values of any size, with and without their zero byte ---------------------------------------

static const char *const STRINGS[] = {
    "$D.DOMAIN", "$D.SPFILE",   "$D.ENABLED", "$D.DB_CLU_ALIAS.IP", "$I1.NODE",      "$I1.ENABLED",
    "$T1.TYPE",  "$T2.ENABLED", "$S.ENABLED", "$S.RCNPOLICY",       "$S.ENVIRONMENT"};

static void read_values_of(const std::string &text, bool with_zero) {
    std::string stored = with_zero ? text + '\0' : text;
    SCOPED_TRACE("size " + std::to_string(stored.size()) + (with_zero ? " with zero" : ""));
    bool fits = stored.size() <= 1024;
    test_host host(CLUSTER);
    for (const char *key : STRINGS)
        host.store(key, stored);
    EXPECT_EQ(run("prsr_get_domain", host).out["domain"], text);
    EXPECT_EQ(run("prsr_get_service_rcn_policy", host).out["answer"], "1");
    outcome flag = run("prsr_get_db_enabled", host);
    EXPECT_EQ(flag.rc, fits ? PRSR_SUCCESS : PRSR_ERR_REGISTRY);
    EXPECT_EQ(flag.out["answer"], fits ? "0" : "77");

    EXPECT_EQ(run("prsr_fetch_db_config", host).rc, fits ? PRSR_SUCCESS : PRSR_ERR_REGISTRY);
    if (!fits) host.store("$T1.TYPE", "");  // one that cannot be read ends the fetch
    fields out = fetched(host);
    EXPECT_EQ(out["SPFILE"], fits ? text : "");
    EXPECT_EQ(out["DB_CLU_ALIAS.IP"], fits ? text : "null");
    EXPECT_EQ(out["INSTANCE.sales1.NODE"], fits ? text : "null");
    EXPECT_EQ(out["INSTANCE.sales1.ENABLED"], fits ? "1" : "0");
    EXPECT_EQ(out[expanded("$L.RCNPOLICY")], fits ? "1" : "0");
    EXPECT_EQ(out[expanded("$L.available")], "SALES2:0");
    EXPECT_EQ(out[expanded("$L.ENVIRONMENT")], "null");
    if (!fits) return;
    std::string line = expanded("4 prsr_get_enabled_key: key name [$D.ENABLED] value [");
    EXPECT_EQ(host.lines("log", line).back(), line + text + "]");
    line = "4 prsr_fetch_db_config: value is : ";
    EXPECT_EQ(host.lines("log", line).back(), line + text);
}

TEST(Hostile, ValuesOfAnySizeReadWithOrWithoutTheirZeroByte) {
    for (size_t n : {0u, 1u, 62u, 63u, 64u, 65u, 1022u, 1023u, 1024u, 1025u, 2047u, 2048u}) {
        read_values_of(std::string(n, 'v'), false);
        read_values_of(std::string(n, 'v'), true);
    }
}

// A text that fills its buffer may cost a block of its own, which may be one too many.
TEST(Hostile, MemoryEndsBesideValuesWithoutTheirZeroByte) {
    for (const operation &op : OPERATIONS) {
        for (size_t size : {64u, 1024u}) {
            bool fired = true;
            for (int nth = 1; fired; ++nth) {
                test_host host(CLUSTER);
                for (const char *key : STRINGS)
                    host.store(key, std::string(size, 'v'));
                host.fail("alloc", "", nth, 1);
                op.run(host);
                fired = host.fired();
            }
        }
    }
}

// ---- Multi-values -------------------------------------------------------------------------------

// What a multi-value means, said in another way than the library's walk: the strings before the
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
    EXPECT_EQ(fetched(host)["ENVIRONMENT"], meant(value, slots));
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

// ---- Own values ---------------------------------------------------------------------------------

// Each reader gets a block of the element's length and a zero byte.
TEST(Hostile, OwnValuesAreCutToTheLengthOfTheirElement) {
    static const struct {
        std::string stored, shown;  // "!" for a read failure
    } VALUES[] = {
        {std::string("Sales\0", 6), "Sales"}, {"Sales", "Sales"}, {"SalesX", "Sales"},
        {std::string("Sal\0", 4), "Sal"},     {"Sal", "Sal"},     {"", ""},
        {std::string("SalesX\0", 7), "!"},    {"SalesXY", "!"},
    };
    static const std::pair<const char *, const char *> READERS[] = {
        {"$D", "prsr_fetch_db_config"},
        {"$D", "prsr_list_db"},
        {"$D.INSTANCE.inst1", "prsr_fetch_db_config"},
        {"$D.SERVICE.serv1", "prsr_fetch_db_config"},
        {"$D.SERVICE.serv1.INSTANCES.inst1", "prsr_fetch_db_config"},
    };
    for (auto &value : VALUES) {
        for (auto &[key, operation] : READERS) {
            SCOPED_TRACE(key + (" " + value.stored));
            test_host host(
                "DATABASE.DATABASES\n sales\n  INSTANCE\n   inst1\n  SERVICE\n"
                "   serv1\n    INSTANCES\n     inst1\n      TYPE=AVAILABLE\n");
            host.store(key, value.stored);
            outcome got = run(operation, host);
            EXPECT_EQ(got.rc, value.shown != "!" ? PRSR_SUCCESS : PRSR_ERR_REGISTRY);
            bool found = value.shown == "!";
            for (auto &field : got.out) {
                found = found || field.second == value.shown || field.second == value.shown + ":0";
            }
            EXPECT_TRUE(found);
        }
    }
}

// ---- Paths --------------------------------------------------------------------------------------

// The longest path that the fetch builds in a fixed block has 2,047 bytes.
TEST(Hostile, PathsEndWithTheirBlocks) {
    static const struct {
        const char *above, *below;  // the longest path that is read below the long name
    } PATHS[] = {
        {"$ROOT", ".DB_CLU_ALIAS.IP"},
        {"$D.INSTANCE", ".ENVIRONMENT"},
        {"$D.SERVICE", ".INSTANCES.i.TYPE"},
        {"$D.SERVICE.srv.INSTANCES", ".TYPE"},
    };
    for (auto &path : PATHS) {
        std::string above = expanded(path.above);
        size_t most = 2047 - above.size() - 1 - strlen(path.below);
        for (size_t length = most - 1; length < most + 20; ++length) {
            SCOPED_TRACE(above + " " + std::to_string(length));
            test_host host(
                "DATABASE.DATABASES\n sales=Sales\n  INSTANCE\n  SERVICE\n   srv\n"
                "    INSTANCES\n");
            std::string name(length, 'n');
            caller by(host);
            if (path.above == std::string("$ROOT")) by.db = name.c_str();
            host.put(above + "." + name, name);
            host.put(above + "." + name + ".INSTANCES", "");
            host.put(above + "." + name + ".INSTANCES.i", "");
            EXPECT_EQ(run("prsr_fetch_db_config", by).rc,
                      length <= most ? PRSR_SUCCESS : PRSR_ERR_ARGUMENT);
            EXPECT_EQ(run("prsr_get_db_enabled", by).rc, PRSR_ERR_NO_DATABASE);
            EXPECT_EQ(run("prsr_list_db", by).rc, PRSR_SUCCESS);
        }
    }
}

// ---- Enumerations -------------------------------------------------------------------------------

// The first answer tells how many subkeys there are, true or not.
TEST(Hostile, FirstAnswerOfAnEnumerationRules) {
    static const struct {
        int32_t result, last;
        int32_t fetch_rc;          // of a fetch whose instances or services are enumerated so
        const char *count, *list;  // of instances or services; of databases or service instances
        bool fetch_reports, list_reports;
    } ANSWERS[] = {
        {16, -1, PRSR_SUCCESS, "null", "", false, false},
        {16, 1, PRSR_SUCCESS, "null", "", false, true},
        {0, -1, PRSR_SUCCESS, "null", "", false, false},
        {0, 0, PRSR_SUCCESS, "1", "A", false, false},
        {0, 2, PRSR_ERR_REGISTRY, "", "", true, true},
        {0, INT_MAX, PRSR_ERR_MEMORY, "", "", false, false},
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
            std::string reporter = in_fetch ? "0 prsr_fetch_db_config" : "0 prsr_get_subkeys";
            EXPECT_EQ(host.lines("log", reporter + ": KVT api kvtc_enum_subkey").size(),
                      in_fetch ? answer.fetch_reports : answer.list_reports);
            std::string number = "4 prsr_fetch_db_config: Number of Instances = ";
            if (answer.last == INT_MAX || key != std::string("$D.INSTANCE")) continue;
            EXPECT_EQ(host.lines("log", number)[0], number + std::to_string(answer.last + 1));
        }
    }
}

// ---- A "TYPE" that changes between the two passes -----------------------------------------------

TEST(Hostile, TypesThatChangeBetweenThePassesStayWithinTheLists) {
    static const char *const WORDS[] = {"PREFERRED", "AVAILABLE", "other"};
    for (int choice = 0; choice < 81; ++choice) {
        const char *types[2][2] = {{WORDS[choice % 3], WORDS[choice / 3 % 3]},
                                   {WORDS[choice / 9 % 3], WORDS[choice / 27]}};
        test_host host(CLUSTER);
        host.bend = [&](const fake_event &event, fake_answer *given) {
            for (int i = 0; i < 2; ++i) {
                if (event.subject != expanded(i == 0 ? "$T1.TYPE" : "$T2.TYPE") ||
                    event.call != "get")
                    continue;
                given->bytes = types[event.nth - 1][i];
                given->size = uint32_t(given->bytes.size());
            }
        };
        fields out = fetched(host);
        if (types[0][0] != types[1][0] || types[0][1] != types[1][1]) continue;  // it survived
        for (const char *kind : {"PREFERRED", "AVAILABLE"}) {
            bool one = types[0][0] == std::string(kind), two = types[0][1] == std::string(kind);
            std::string list = std::string(one ? "Sales1:1" : "") + (one && two ? "," : "") +
                               (two ? "SALES2:0" : "");
            EXPECT_EQ(out[expanded(*kind == 'P' ? "$L.preferred" : "$L.available")], list);
        }
    }
}
