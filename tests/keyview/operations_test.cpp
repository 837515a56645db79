// What the single operations promise beyond what the sweeps and transcripts show: words, names,
// defaults, handles and releases.
#include <gtest/gtest.h>

#include "operations.h"

// ---- Context ------------------------------------------------------------------------------------

TEST(Context, LockServiceOfTheCallerStaysTheCallers) {
    fake_host host(CLUSTER);
    void *lk = host.make_lock_service();
    prsr_ctx *ctx = nullptr;
    ASSERT_EQ(prsr_init_ext(nullptr, &ctx, lk), PRSR_SUCCESS);
    EXPECT_EQ(prsr_set_db_enabled(host.status, ctx, "sales", 0), PRSR_SUCCESS);
    EXPECT_EQ(prsr_terminate(nullptr, ctx), PRSR_SUCCESS);
    EXPECT_TRUE(host.lines("lksvsinit", "").empty() && host.lines("lksvsterm", "").empty());
    EXPECT_EQ(host.lock_services.erase(lk), 1u);
}

// ---- Words --------------------------------------------------------------------------------------

// A flag read by itself is 1 for TRUE only, in a record 0 for FALSE only; those of a service's
// instances follow the first rule there too.
TEST(Words, FlagsReadByTwoRules) {
    static const struct {
        const char *word, *alone, *in_record;
    } FLAGS[] = {{"TRUE", "1", "1"},  {"true", "1", "1"}, {"TrUe", "1", "1"}, {"FALSE", "0", "0"},
                 {"fAlse", "0", "0"}, {"yes", "0", "1"},  {"", "0", "1"},     {"TRUE ", "0", "1"}};
    for (auto &flag : FLAGS) {
        SCOPED_TRACE(flag.word);
        std::string service = expanded("$L");
        test_host host(CLUSTER);
        std::string stored = flag.word + std::string(1, '\0');
        for (const char *key : {"$D", "$I1", "$S", "$T1", "$T2"}) {
            host.put(expanded(key) + ".ENABLED", stored);
        }
        EXPECT_EQ(run("prsr_get_db_enabled", host).out["answer"], flag.alone);
        EXPECT_EQ(run("prsr_get_instance_enabled", host).out["answer"], flag.alone);
        fields out = fetched(host);
        EXPECT_EQ(out["ENABLED"] + out["INSTANCE.sales1.ENABLED"] + out[service + ".ENABLED"],
                  std::string(3, *flag.in_record));
        EXPECT_EQ(out[service + ".preferred"], std::string("Sales1:") + flag.alone);
        EXPECT_EQ(out[service + ".available"], std::string("SALES2:") + flag.alone);
    }
}

TEST(Words, AnyNumberButZeroEnables) {
    for (int32_t enabled : {0, 1, 2, -1}) {
        test_host host(CLUSTER);
        EXPECT_EQ(prsr_set_db_enabled(host.status, host.ctx, "Sales", enabled), PRSR_SUCCESS);
        EXPECT_EQ(prsr_set_instance_enabled(host.status, host.ctx, "Sales", "SALES1", enabled),
                  PRSR_SUCCESS);
        std::string stored = enabled ? std::string("true\0", 5) : std::string("false\0", 6);
        EXPECT_EQ(host.values[expanded("$D.ENABLED")], stored);
        EXPECT_EQ(host.values[expanded("$I1.ENABLED")], stored);
        EXPECT_EQ(run("prsr_get_db_enabled", host).out["answer"], enabled ? "1" : "0");
    }
}

TEST(Words, PoliciesReadInAnyCase) {
    static const struct {
        const char *word, *code;
    } POLICIES[] = {{"BASIC", "2"},     {"basic", "2"},  {"PRECONNECT", "3"}, {"PreConnect", "3"},
                    {"AVAILABLE", "3"}, {"mutual", "3"}, {"NONE", "1"},       {"BASIC ", "1"},
                    {"", "1"},          {"BASICS", "1"}};
    for (auto &policy : POLICIES) {
        test_host host(CLUSTER);
        host.store("$S.RCNPOLICY", policy.word + std::string(1, '\0'));
        EXPECT_EQ(run("prsr_get_service_rcn_policy", host).out["answer"], policy.code);
        EXPECT_EQ(fetched(host)[expanded("$L.RCNPOLICY")], policy.code);
    }
}

// ---- Missing things -----------------------------------------------------------------------------

TEST(Missing, DatabaseOfNothingButItsNameIsFetched) {
    test_host host(ONE_DATABASE);
    const fields bare = {
        {"sp", "Sales"},           {"DB_CLU_ALIAS.IP", "null"}, {"TALVEN_HOME", "null"},
        {"SPFILE", "null"},        {"DB_NAME", "null"},         {"ROLE", "null"},
        {"START_OPTIONS", "null"}, {"DOMAIN", "null"},          {"POLICY", "AUTOMATIC"},
        {"ENABLED", "0"},          {"ENVIRONMENT", "null"},     {"INSTANCE", "null"},
        {"SERVICE", "null"}};
    EXPECT_EQ(fetched(host), bare);
    std::string expected;
    for (const char *key : {"TALVEN_HOME", "SPFILE", "DB_NAME", "ROLE", "START_OPTIONS", "INSTANCE",
                            "SERVICE", "DOMAIN", "ENABLED"}) {
        expected += joined(report("prsr_fetch_db_config", "open", expanded("$D.") + key, 4));
    }
    EXPECT_EQ(joined(host.lines("log", "0 ")), expected);
}

TEST(Missing, InstanceAndServiceOfNothingButTheirNamesAreLoaded) {
    test_host host(
        "DATABASE.DATABASES\n sales=Sales\n  INSTANCE\n   i=I\n  SERVICE\n   s=S\n"
        "    INSTANCES\n     a=A\n      TYPE=PREFERRED\n     b=B\n");
    fields out = fetched(host);
    EXPECT_EQ(out["INSTANCE.i"] + out["INSTANCE.i.NODE"] + out["INSTANCE.i.ENVIRONMENT"] +
                  out["INSTANCE.i.ENABLED"],
              "Inullnull0");
    EXPECT_EQ(out["SERVICE.s.preferred"] + "|" + out["SERVICE.s.available"], "A:0|");
    EXPECT_EQ(out["SERVICE.s.RCNPOLICY"] + out["SERVICE.s.ENVIRONMENT"] + out["SERVICE.s.ENABLED"],
              "0null0");
    std::string type = expanded("$D.SERVICE.s.INSTANCES.b.TYPE");
    EXPECT_EQ(host.lines("log", report("prsr_fill_service", "open", type, 4)[0]).size(), 2u);
}

TEST(Missing, ClusterWithoutDatabasesListsNone) {
    for (const char *tree : {"", "DATABASE.DATABASES\n"}) {
        test_host host(tree);
        outcome got = run("prsr_list_db", host);
        EXPECT_EQ(got.rc, PRSR_SUCCESS);
        EXPECT_EQ(got.out["list"] + got.out["count"], "0");
        EXPECT_TRUE(host.lines("log", "0 ").empty());
    }
}

// ---- Names --------------------------------------------------------------------------------------

TEST(Names, DotOfADatabaseLeadsOneLevelDeeper) {
    test_host host("DATABASE.DATABASES\n a\n  b=A.B\n   ENABLED=TRUE\n   DOMAIN=dom\n");
    caller by(host);
    by.db = "A.B";
    EXPECT_EQ(run("prsr_get_db_enabled", by).out["answer"], "1");
    EXPECT_EQ(run("prsr_get_domain", by).out["domain"], "dom");
    EXPECT_EQ(run("prsr_fetch_db_config", by).out["sp"], "A.B");
}

TEST(Names, EachDotOfAServiceBecomesAStar) {
    test_host host("DATABASE.DATABASES\n sales\n  SERVICE\n   a*b*c\n    RCNPOLICY=MUTUAL\n");
    caller by(host);
    by.srv = "A.b.C";
    EXPECT_EQ(run("prsr_get_service_rcn_policy", by).out["answer"], "3");
}

// ---- Releases -----------------------------------------------------------------------------------

TEST(Release, ForeignAndEmptyThingsAreLeftAlone) {
    test_host host(CLUSTER);
    alignas(prsr_cfg) char foreign[sizeof(prsr_cfg)] = "PRSRCTXA";
    auto *cfg = reinterpret_cast<prsr_cfg *>(foreign);
    EXPECT_EQ(prsr_release_db_config(host.status, host.ctx, cfg), PRSR_SUCCESS);
    char domain[1] = "";
    EXPECT_EQ(prsr_free_domain(nullptr, domain), PRSR_ERR_CONTEXT);
    EXPECT_EQ(prsr_free_domain(host.ctx, nullptr), PRSR_ERR_CONTEXT);
    char *answer = domain;
    EXPECT_EQ(prsr_get_domain(host.status, host.ctx, nullptr, &answer), PRSR_ERR_CONTEXT);
    EXPECT_EQ(answer, domain);
    EXPECT_TRUE(host.events.empty());
}
