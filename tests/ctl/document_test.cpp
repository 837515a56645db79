// The cluster document without a registry: what is refused and where, and that a document and its
// tree say the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "admin/document/reader.h"
#include "admin/document/writer.h"
#include "ctl/yaml_text.h"

using namespace keyview::admin;
using namespace std::string_literals;

// All rows of a table beside the tests, a row a line; the test fails unless there are some, each of so many
// cells.
static std::vector<std::vector<std::string>> rows_of(const std::string &name, size_t cells) {
    static const std::string BETWEEN = " | ";
    std::vector<std::vector<std::string>> rows;
    std::ifstream table(TEST_FILES "/" + name);
    for (std::string line; std::getline(table, line);) {
        if (line[0] == '#') continue;
        rows.emplace_back();
        for (size_t at = 0, end = 0; end != line.npos; at = end + BETWEEN.size()) {
            end = line.find(BETWEEN, at);
            rows.back().push_back(line.substr(at, end - at));
        }
        EXPECT_EQ(rows.back().size(), cells) << name << ": " << line;
    }
    EXPECT_FALSE(rows.empty()) << name;
    return rows;
}

static std::string example() {
    std::ifstream file(EXAMPLE_DOCUMENT);
    return {std::istreambuf_iterator<char>(file), {}};
}

static std::string listed(const problem_list &problems) {
    std::string text;
    for (const problem &wrong : problems.kept())
        text += wrong.place + ": " + wrong.reason + "\n";
    return text;
}

static key_node tree_of(const std::string &document) {
    problem_list problems;
    document_plan plan = read_document(document, &problems);
    EXPECT_EQ(listed(problems), "");
    key_node tree;
    for (const key_row &one : plan.changes)
        tree.make(one.path).value = *one.value;
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

static std::string replaced(std::string text, const std::string &mark, const std::string &by) {
    for (size_t at = 0; (at = text.find(mark, at)) != text.npos; at += by.size())
        text.replace(at, mark.size(), by);
    return text;
}

// A value as a table writes it.
static std::string bytes_of(std::string text) {
    text = replaced(text, "<1024>", std::string(1024, 'x'));
    text = replaced(replaced(text, "\\xc3", "\xc3"), "\\x28", "(");
    return text == "<none>" ? "" : replaced(text, "\\0", "\0"s);
}

// The document of a row of refusals.txt.
static std::string wrapped(const std::string &where, std::string text) {
    text = replaced(replaced(text, "<ff>", "\xff"), "<nl>", "\n");
    size_t at = text.find('$');
    if (at != text.npos) {
        size_t end = text.find('$', at + 1);
        text.replace(at, end + 1 - at, text_of(std::stoul(text.substr(at + 1))));
    }
    if (where == "document") return document_with(text);
    if (where == "sales") return sales_with(text);
    return where == "service" ? service_with(text) : text;
}

static void expect_one(const problem_list &problems, const std::string &place,
                       const std::string &reason) {
    const std::string all = listed(problems);
    EXPECT_TRUE(all.find(place + ": ") == 0 && all.find(reason) != all.npos) << all;
    EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 1) << all;
}

TEST(DocumentReader, RefusesWithPlaceAndReason) {
    for (const auto &row : rows_of("refusals.txt", 4)) {
        SCOPED_TRACE(row[1]);
        problem_list problems;
        (void)read_document(wrapped(row[0], row[1]), &problems);
        expect_one(problems, row[2], row[3]);
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

TEST(DocumentReader, StoresValuesAsReadersExpectThem) {
    key_node tree = tree_of(document_with(
        R"("databases": [{"name": "Sales", "alias_ip": "10.0.0.1", "enabled": false, "env": [],
            "instances": [{"name": "I1", "env": ["A=1", "B=2"]}], "services": [{"name": "Day.Web",
            "preferred": [{"name": "I1", "enabled": true}]}]}],
            "nodeapps": [{"name": "n", "vip": "", "vip_ip": "10.0.0.2", "home": ""}])"));
    for (const auto &row : rows_of("stored.txt", 2)) {
        SCOPED_TRACE(row[0]);
        const key_node *key = tree.find(row[0]);
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->value, bytes_of(row[1]));
    }
}

TEST(DocumentWriter, WritesWhatWasRead) {
    for (const std::string &document :
         {example(), document_with(""), document_with(R"("databases": [], "stg": [])"),
          document_with(R"("nodeapps": [{"name": "n", "vip_ip": "10.0.0.2"}])"),
          service_with(R"("preferred": [])"),
          sales_with(
              R"("spfile_base64": "/w==", "env": ["ok", null], "env_base64": [null, "/w=="])"),
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
    for (const auto &row : rows_of("inexpressible.txt", 4)) {
        SCOPED_TRACE(row[0]);
        key_node tree = tree_of(example());
        tree.make(row[0]).value = bytes_of(row[1]);
        problem_list problems;
        (void)write_document(&tree, &problems);
        expect_one(problems, row[2], row[3]);
    }
}

// A number keeps its kind and its value through YAML, whatever JSON has.
TEST(Yaml, NumbersStayWhatTheyAre) {
    for (const char *number :
         {"18446744073709551615", "-9223372036854775808", "0.25", "-5.5e+27", "0"}) {
        const auto value = nlohmann::ordered_json::parse("{\"number\":"s + number + "}");
        const std::string yaml = keyview::ctl::yaml_of(value, false);
        const std::string json = keyview::ctl::json_text_of("number.yaml", yaml);
        EXPECT_EQ(nlohmann::ordered_json::parse(json), value) << yaml;
    }
}
