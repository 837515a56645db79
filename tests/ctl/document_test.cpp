// The cluster document without a registry: what is refused and where, and that a document and its
// tree say the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "host/admin/document_reader.h"
#include "host/admin/document_writer.h"

using namespace keyview::admin;
using namespace std::string_literals;

static std::string example() {
    std::ifstream file(EXAMPLE_DOCUMENT);
    return {std::istreambuf_iterator<char>(file), {}};
}

static std::string listed(problem_list problems) {
    result all;
    if (!problems.empty()) problems.report("", &all);
    std::string text;
    for (const problem &wrong : all.problems)
        text += wrong.place + ": " + wrong.reason + "\n";
    return text;
}

static key_node tree_of(const std::string &document) {
    problem_list problems;
    document_plan plan = read_document(document, &problems);
    EXPECT_EQ(listed(problems), "");
    key_node tree;
    for (const keyview::host::change &change : plan.changes) {
        tree.make(change.path).value = change.value;
    }
    return tree;
}

static std::string document_with(const std::string &members) {
    return R"({"format": "keyview-cluster", "version": 1)"s + (members.empty() ? "" : ", ") +
           members + "}";
}

// A database "Sales" with further fields; its instance i1 is there.
static std::string sales_with(const std::string &fields) {
    return document_with(R"("databases": [{"name": "Sales", "instances": [{"name": "i1"}], )" +
                         fields + "}]");
}

static std::string service_with(const std::string &fields) {
    return sales_with(R"("services": [{"name": "s", )" + fields + "}]");
}

static std::string text_of(size_t bytes) {
    return "\"" + std::string(bytes, 'x') + "\"";
}

TEST(DocumentReader, RefusesWithPlaceAndReason) {
    const struct {
        std::string document, place, words;
    } CASES[] = {
        // The JSON itself.
        {"", "line 1, column 1", "unexpected end of input"},
        {"{\n  \"a\": é\n}", "line 2, column 8", "invalid literal"},
        {document_with("") + "x", "line 1, column 44", "expected end of input"},
        {"{\"a\": \"\xff\"}", "line 1, column 8", "ill-formed UTF-8"},
        {"[1e999]", "line 1, column 6", "number overflow"},
        {document_with(R"("stg": [], "stg": [])"), "/stg", "twice"},
        {sales_with(R"("services": [{"name": "s"}, {"name": "t", "na\u006de": "u"}])"),
         "/databases/0/services/1/name", "twice"},
        // The head.
        {"[]", "", "must be an object"},
        {"{}", "/format", "keyview-cluster"},
        {R"({"format": "keyview", "version": 1})", "/format", "keyview-cluster"},
        {R"({"format": "keyview-cluster", "version": "1"})", "/version", "must be 1"},
        {R"({"format": "keyview-cluster", "version": 1.0})", "/version", "must be 1"},
        {R"({"format": "keyview-cluster", "version": 2})", "/version", "must be 1"},
        // Fields and types.
        {document_with(R"("database": [])"), "/database", "no field"},
        {document_with(R"("databases": {})"), "/databases", "must be an array"},
        {document_with(R"("databases": [1])"), "/databases/0", "must be an object"},
        {sales_with(R"("a/b~": 1)"), "/databases/0/a~1b~0", "no field"},
        {sales_with(R"("scope": "x")"), "/databases/0/scope", "no field"},
        {sales_with(R"("spfile": null)"), "/databases/0/spfile", "must be a string"},
        {sales_with(R"("enabled": "true")"), "/databases/0/enabled", "true or false"},
        {sales_with(R"("enabled": 1)"), "/databases/0/enabled", "true or false"},
        {sales_with(R"("env": "A=1")"), "/databases/0/env", "array of strings"},
        {sales_with(R"("env": ["A=1", 2])"), "/databases/0/env/1", "must be a string"},
        {sales_with(R"("services": null)"), "/databases/0/services", "must be an array"},
        // Names.
        {document_with(R"("databases": [{}])"), "/databases/0/name", "is missing"},
        {document_with(R"("databases": [{"name": 7}])"), "/databases/0/name", "must be a string"},
        {document_with(R"("databases": [{"name": ""}])"), "/databases/0/name", "empty"},
        {document_with(R"("databases": [{"name": "a.b"}])"), "/databases/0/name", "\".\""},
        {document_with(R"("databases": [{"name": "a\u0000"}])"), "/databases/0/name", "control"},
        {document_with(R"("databases": [{"name": "a\u007f"}])"), "/databases/0/name", "control"},
        {document_with(R"("stg": [{"name": "x"}])"), "/stg/0/scope", "is missing"},
        {document_with(R"("stg": [{"scope": "x.y", "name": "x"}])"), "/stg/0/scope", "\".\""},
        {document_with(R"("databases": [{"name": "Sales"}, {"name": "sALES"}])"),
         "/databases/1/name", "same key as /databases/0"},
        {sales_with(R"("services": [{"name": "A.b"}, {"name": "a*B"}])"),
         "/databases/0/services/1/name", "same key as /databases/0/services/0"},
        {document_with(R"("stg": [{"scope": "A", "name": "x"}, {"scope": "a", "name": "X"}])"),
         "/stg/1/name", "same key as /stg/0"},
        // What readers would cut, skip or misread.
        {sales_with(R"("spfile": "a\u0000b")"), "/databases/0/spfile", "zero byte"},
        {sales_with(R"("env": ["A=1", ""])"), "/databases/0/env/1", "empty"},
        {sales_with(R"("env": ["A\u0000"])"), "/databases/0/env/0", "zero byte"},
        {sales_with(R"("home": )" + text_of(1024)), "/databases/0/home",
         "up to 1,024 bytes and has 1,025"},
        {document_with(R"("stg": [{"scope": "a", "name": "b", "home": )" + text_of(1 << 20) + "}]"),
         "/stg/0/home", "up to 1,048,576 bytes"},
        {sales_with(R"("role": "STANDBY")"), "/databases/0/role", "PHYSICAL_STANDBY"},
        {service_with(R"("rcn_policy": "")"), "/databases/0/services/0/rcn_policy", "PRECONNECT"},
        {sales_with(R"("services": [{"name": )" + text_of(2003) + "}]"),
         "/databases/0/services/0/name", "2,048 bytes; their readers take up to 2,047"},
        {document_with(R"("databases": [{"name": "d", "instances": [{"name": )" + text_of(1024) +
                       "}]}]"),
         "/databases/0/instances/0/name", "1,024 bytes"},
        {service_with(R"("preferred": [{"name": "i1"}], "available": [{"name": "I1"}])"),
         "/databases/0/services/0/available/0/name", "preferred or available"},
    };
    for (const auto &row : CASES) {
        problem_list problems;
        (void)read_document(row.document, &problems);
        std::string all = listed(problems);
        EXPECT_EQ(all.find(row.place + ": "), 0u) << row.document.substr(0, 200) << "\n" << all;
        EXPECT_NE(all.find(row.words), all.npos) << row.document.substr(0, 200) << "\n" << all;
        EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1) << all;
    }
}

TEST(DocumentReader, TakesWhatJustFits) {
    for (const std::string &document :
         {sales_with(R"("home": )" + text_of(1023)), sales_with(R"("role": "primary")"),
          service_with(R"("rcn_policy": "Mutual")"), document_with(R"("nodeapps": [])"),
          sales_with(R"("services": [{"name": )" + text_of(2002) + "}]"),
          document_with(R"("stg": [{"scope": "a", "name": "b", "env": [)" + text_of((1 << 20) - 2) +
                        "]}]")}) {
        problem_list problems;
        (void)read_document(document, &problems);
        EXPECT_EQ(listed(problems), "") << document.substr(0, 200);
    }
}

TEST(DocumentReader, NamesTheFirstProblemsAndCountsTheOthers) {
    std::string instances = "{}";
    for (int n = 1; n < 50; ++n)
        instances += ", {}";
    problem_list problems;
    (void)read_document(document_with(R"("databases": [)" + instances + "]"), &problems);
    result all;
    problems.report("", &all);
    EXPECT_EQ(all.problems.size(), 20u);
    EXPECT_EQ(all.more_problems, 30u);
}

TEST(DocumentReader, AsksForLocksAndForInstancesItDoesNotHold) {
    problem_list problems;
    document_plan plan = read_document(
        document_with(R"("databases": [{"name": "Sales", "instances": [{"name": "i1"}],
            "services": [{"name": "A.b", "preferred": [{"name": "I1"}, {"name": "I2"}]}]}],
            "stg": [{"scope": "Node1", "name": "Stg"}], "nodeapps": [{"name": "Node1"}])"),
        &problems);
    EXPECT_EQ(listed(problems), "");
    EXPECT_EQ(plan.locks, (std::set<std::string>{"LKRT.DATABASE.DATABASES.sales",
                                                 "LKRT.DATABASE.NODEAPPS.node1",
                                                 "LKRT.STG.DATABASE.STG.node1.stg"}));
    ASSERT_EQ(plan.instances.size(), 1u);
    EXPECT_EQ(plan.instances[0].path, "DATABASE.DATABASES.sales.INSTANCE.i2");
    EXPECT_EQ(plan.instances[0].place, "/databases/0/services/0/preferred/1/name");
}

TEST(DocumentReader, StoresValuesAsReadersExpectThem) {
    key_node tree = tree_of(document_with(
        R"("databases": [{"name": "Sales", "alias_ip": "10.0.0.1", "enabled": false, "env": [],
            "instances": [{"name": "I1", "env": ["A=1", "B=2"]}], "services": [{"name": "Day.Web",
            "preferred": [{"name": "I1", "enabled": true}]}]}],
            "nodeapps": [{"name": "n", "vip": "", "vip_ip": "10.0.0.2", "home": ""}])"));
    const struct {
        const char *path;
        std::string value;
    } CASES[] = {
        {"DATABASE.DATABASES", ""},
        {"DATABASE.DATABASES.sales", "Sales\0"s},
        {"DATABASE.DATABASES.sales.DB_CLU_ALIAS", ""},
        {"DATABASE.DATABASES.sales.DB_CLU_ALIAS.IP", "10.0.0.1\0"s},
        {"DATABASE.DATABASES.sales.ENABLED", "false\0"s},
        {"DATABASE.DATABASES.sales.ENVIRONMENT", "\0"s},
        {"DATABASE.DATABASES.sales.INSTANCE", ""},
        {"DATABASE.DATABASES.sales.INSTANCE.i1.ENVIRONMENT", "A=1\0B=2\0\0"s},
        {"DATABASE.DATABASES.sales.SERVICE.day*web", "Day.Web\0"s},
        {"DATABASE.DATABASES.sales.SERVICE.day*web.INSTANCES", ""},
        {"DATABASE.DATABASES.sales.SERVICE.day*web.INSTANCES.i1", "I1\0"s},
        {"DATABASE.DATABASES.sales.SERVICE.day*web.INSTANCES.i1.TYPE", "PREFERRED\0"s},
        {"DATABASE.DATABASES.sales.SERVICE.day*web.INSTANCES.i1.ENABLED", "true\0"s},
        {"DATABASE.NODEAPPS.n.VIP", ""},
        {"DATABASE.NODEAPPS.n.VIP.IP", "10.0.0.2\0"s},
        {"DATABASE.NODEAPPS.n.TALVEN_HOME", "\0"s},
    };
    for (const auto &row : CASES) {
        const key_node *key = tree.find(row.path);
        ASSERT_NE(key, nullptr) << row.path;
        EXPECT_EQ(key->value, row.value) << row.path;
    }
}

TEST(DocumentWriter, WritesWhatWasRead) {
    for (const std::string &document :
         {example(), document_with(""), document_with(R"("databases": [], "stg": [])"),
          document_with(R"("nodeapps": [{"name": "n", "vip_ip": "10.0.0.2"}])"),
          service_with(R"("preferred": [])"),
          sales_with(R"("home": "\u0001\\\"\u202e/\u00e4", "env": ["=", " "])")}) {
        key_node tree = tree_of(document);
        problem_list problems;
        std::string written = write_document(&tree, &problems);
        EXPECT_EQ(listed(problems), "") << document;
        EXPECT_TRUE(written == document || document != example())
            << "the example is written otherwise";
        key_node again = tree_of(written);
        EXPECT_EQ(write_document(&again, &problems), written);
    }
}

// Puts one odd value into the example's tree: a document that left it out would lose it.
TEST(DocumentWriter, RefusesWhatADocumentCannotSay) {
    const std::string D = "DATABASE.DATABASES.sales", S = D + ".SERVICE.reporting";
    const struct {
        std::string path, value, place, words;
    } CASES[] = {
        {D + ".FUTURE", "x\0"s, D + ".FUTURE", "no field"},
        {D + ".SPFILE.MORE", "x\0"s, D + ".SPFILE.MORE", "no field"},
        {D + ".DB_CLU_ALIAS", "x\0"s, D + ".DB_CLU_ALIAS", "value of its own"},
        {D + ".INSTANCE", "x\0"s, D + ".INSTANCE", "value of its own"},
        {D, "", D, "no own value"},
        {D, "Sales", D, "zero byte"},
        {D, "Sale\0"s, D, "does not fold"},
        {D, "sal\0s\0"s, D, "control"},
        {S, "Report.ng\0"s, S, "does not fold"},
        {D + ".SPFILE", "x", D + ".SPFILE", "end with a zero byte"},
        {D + ".SPFILE", "", D + ".SPFILE", "end with a zero byte"},
        {D + ".SPFILE", "x\0\0"s, D + ".SPFILE", "zero byte"},
        {D + ".SPFILE", "\xc3\x28\0"s, D + ".SPFILE", "UTF-8"},
        {D + ".SPFILE", std::string(1024, 'x') + '\0', D + ".SPFILE", "too long"},
        {D + ".ROLE", "MASTER\0"s, D + ".ROLE", "none of the words"},
        {D + ".ENABLED", "TRUE\0"s, D + ".ENABLED", "not a flag"},
        {D + ".ENABLED", "true", D + ".ENABLED", "not a flag"},
        {D + ".ENVIRONMENT", "", D + ".ENVIRONMENT", "list of strings"},
        {D + ".ENVIRONMENT", "A=1\0"s, D + ".ENVIRONMENT", "list of strings"},
        {D + ".ENVIRONMENT", "A\0\0B\0\0"s, D + ".ENVIRONMENT", "string 1 must not be empty"},
        {S + ".INSTANCES.sales4.TYPE", "preferred\0"s, S + ".INSTANCES.sales4.TYPE", "neither"},
        {S + ".INSTANCES.sales9.ENABLED", "true\0"s, S + ".INSTANCES.sales9.TYPE", "neither"},
        {"DATABASE.NODEAPPS.node1.VIP", "\0"s, "DATABASE.NODEAPPS.node1.VIP", "cannot say"},
        {"DATABASE.STG.Node1.a", "a\0"s, "DATABASE.STG.Node1", "lower case"},
        {"DATABASE.STG.node99", "", "DATABASE.STG.node99", "without an entry"},
        {"DATABASE.STG.node1", "x\0"s, "DATABASE.STG.node1", "value of its own"},
    };
    for (const auto &row : CASES) {
        key_node tree = tree_of(example());
        tree.make(row.path).value = row.value;
        problem_list problems;
        (void)write_document(&tree, &problems);
        std::string all = listed(problems);
        EXPECT_EQ(all.find(row.place + ": "), 0u) << row.path << "\n" << all;
        EXPECT_NE(all.find(row.words), all.npos) << row.path << "\n" << all;
        EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1) << row.path << "\n" << all;
    }
}
