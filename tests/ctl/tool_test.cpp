// keyviewctl from end to end: the built program on a registry in a temporary folder.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>

#include "admin/registry.h"
#include "table.h"

using namespace std::string_literals;
using nlohmann::json;
using namespace keyview;

struct outcome {
    int code;  // the exit code; 124 if it did not end within a minute
    std::string out;
    std::string err;
};

struct surroundings {
    std::string input = {};        // for standard input
    std::string out_file = {};     // where stdout goes, if not to the outcome
    std::string environment = {};  // "NAME=value", beside what the test itself has
};

static std::string read_whole(const std::string &file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// A word of the shell with these very bytes in it.
static std::string shell_word(const std::string &word) {
    std::string out = "'";
    for (char byte : word)
        out += byte == '\'' ? std::string("'\\''") : std::string(1, byte);
    return out + "' ";
}

// Runs keyviewctl as a real process.
static outcome run_tool(const std::vector<std::string> &arguments, const surroundings &around) {
    std::string folder = testing::TempDir() + "keyviewctl.XXXXXX";
    EXPECT_NE(mkdtemp(folder.data()), nullptr);
    std::ofstream(folder + "/in", std::ios::binary) << around.input;
    std::string out_file = around.out_file.empty() ? folder + "/out" : around.out_file;
    std::string command = around.environment + " XDG_STATE_HOME=" + folder + " timeout -k 5 60 " +
                          shell_word(KEYVIEWCTL);
    for (const std::string &word : arguments)
        command += shell_word(word);
    command +=
        "<" + shell_word(folder + "/in") + ">" + shell_word(out_file) + "2>" + folder + "/err";
    int status = std::system(command.c_str());
    outcome ended = {WEXITSTATUS(status), read_whole(folder + "/out"), read_whole(folder + "/err")};
    std::filesystem::remove_all(folder);
    return ended;
}

static const std::string EXAMPLE = read_whole(EXAMPLE_DOCUMENT);

static std::string document_with(const std::string &members) {
    return R"({"format": "keyview-cluster", "version": 1, )" + members + "}";
}

class Tool : public testing::Test {
  protected:
    void SetUp() override {
        folder_ = testing::TempDir() + "keyview.XXXXXX";
        ASSERT_NE(mkdtemp(folder_.data()), nullptr);
        url_ = "lmdb:" + folder_ + "/registry";
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }

    outcome run(std::vector<std::string> arguments, const surroundings &around = {}) const {
        arguments.insert(arguments.end(), {"--registry", url_});
        return run_tool(arguments, around);
    }

    outcome apply(const std::string &document) const { return run({"apply", "-"}, {document}); }

    void apply_example() const {
        outcome ended = apply(EXAMPLE);
        ASSERT_EQ(ended.code, 0) << ended.err;
    }

    std::string exported() const {
        outcome ended = run({"export"});
        EXPECT_EQ(ended.code, 0) << ended.err;
        return ended.out;
    }

    // What no document can say goes in here.
    void put(const std::string &path, const std::string &value) const {
        admin::registry::open(url_).apply(
            1,
            [&](size_t) {
                return admin::key_row{path, value};
            },
            {}, 0);
    }

    std::string folder_;
    std::string url_;
};

TEST_F(Tool, WhatIsAppliedComesBackByteForByte) {
    outcome first = run({"apply", EXAMPLE_DOCUMENT});
    EXPECT_EQ(first.code, 0) << first.err;
    EXPECT_NE(first.out.find(" keys created, 0 changed, 0 removed\n"), std::string::npos)
        << first.out;
    EXPECT_EQ(apply(EXAMPLE).out, "nothing to change: all of it is stored already\n");
    EXPECT_EQ(exported(), EXAMPLE);

    std::string file = folder_ + "/saved.json";
    EXPECT_EQ(run({"export", file}).code, 0);
    EXPECT_EQ(read_whole(file), EXAMPLE);
    url_ = "lmdb:" + folder_ + "/second";
    EXPECT_EQ(json::parse(run({"apply", file, "-o", "json"}).out)["replaced"], 0);
    EXPECT_EQ(exported(), EXAMPLE);
}

TEST_F(Tool, ApplyLeavesAloneWhatADocumentDoesNotMention) {
    apply_example();
    outcome second = apply(document_with(
        R"("databases": [{"name": "SALES", "spfile": "new", "services": [{"name": "reporting",
           "preferred": [{"name": "Sales3"}]}, {"name": "late", "preferred": [{"name": "sales4"}]}]}])"));
    EXPECT_EQ(second.code, 0) << second.err;
    json expected = json::parse(EXAMPLE);
    json &sales = expected["databases"][1];
    sales["name"] = "SALES";
    sales["spfile"] = "new";
    json moved = sales["services"][2];
    ASSERT_EQ(moved["name"], "reporting");
    moved["preferred"].insert(moved["preferred"].begin(), moved["available"][0]);
    moved["available"] = json::array();
    sales["services"][2] = {
        {"name", "late"}, {"preferred", {{{"name", "sales4"}}}}, {"available", json::array()}};
    sales["services"].push_back(moved);
    std::sort(sales["services"].begin(), sales["services"].end(),
              [](const json &a, const json &b) { return a["name"] < b["name"]; });
    EXPECT_EQ(json::parse(exported()), expected);
}

TEST_F(Tool, ARefusedDocumentWritesNothing) {
    const struct {
        std::string document, place, words;
    } CASES[] = {
        {document_with(R"("databases": [{"name": "a"}, {"name": "b", "spfile": 1}])"),
         "/databases/1/spfile", "must be a string"},
        {document_with(R"("databases": [{"name": "sales", "spfile": "x", "services": [
             {"name": "s", "available": [{"name": "Sales9"}]}]}])"),
         "/databases/0/services/0/available/0/name", "neither the document nor the registry"},
        {document_with(R"("databases": [{"name": "sales", "spfile": "x", "services": [
             {"name": "Checkout*Shop.example.com"}]}])"),
         "/databases/0/services/0/name", "another service: checkout.shop.example.com"},
    };
    for (const auto &row : CASES) {
        outcome fresh = apply(row.document);
        EXPECT_TRUE(fresh.code == 0 || !std::filesystem::exists(folder_ + "/registry"));
    }
    std::filesystem::remove_all(folder_ + "/registry");
    apply_example();
    for (const auto &row : CASES) {
        outcome ended = apply(row.document);
        EXPECT_EQ(ended.code, 8);
        EXPECT_NE(ended.err.find(row.place + ": "), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find(row.words), std::string::npos) << ended.err;
    }
    EXPECT_EQ(exported(), EXAMPLE);
}

// Each row sees what those before it wrote.
TEST_F(Tool, EachCommandAnswersPeopleAndPrograms) {
    EXPECT_EQ(apply(document_with(R"("databases": [])")).code, 0);
    EXPECT_EQ(run({"list"}).out, "");
    EXPECT_EQ(json::parse(run({"list", "-o", "json"}).out)["db_list"], json::array());
    apply_example();
    put("DATABASE.STG.node2.stg2.ENABLED", "false\0"s);
    for (const auto &row : rows_of("commands.txt", 5)) {
        SCOPED_TRACE(row[0]);
        std::vector<std::string> arguments = split(row[0], " ");
        outcome people = run(arguments);
        EXPECT_EQ(people.code, std::stoi(row[1])) << people.err;
        EXPECT_NE(("\n" + people.out).find("\n" + row[2] + "\n"), std::string::npos) << people.out;
        arguments.insert(arguments.end(), {"-o", "json"});
        outcome programs = run(arguments);
        EXPECT_EQ(programs.code, people.code) << programs.err;
        json answer = json::parse(programs.out, nullptr, false);
        ASSERT_TRUE(answer.is_object() && answer["kind"].is_string()) << programs.out;
        EXPECT_EQ(answer["version"], 1);
        ASSERT_TRUE(answer.contains(json::json_pointer(row[3]))) << programs.out;
        EXPECT_EQ(answer[json::json_pointer(row[3])], json::parse(row[4]));
    }
    const std::string LONG(100'000, 'N');  // no first buffer holds it
    put("DATABASE.DATABASES.sandbox", LONG + '\0');
    EXPECT_EQ(run({"name", "sandbox"}).out, LONG + "\n");
}

// Where the record has a field of the document, by their JSON pointers.
static json::json_pointer place_in_record(std::string pointer) {
    if (pointer == "/name") pointer = "/sp_name";
    const std::regex NAME("/(preferred|available)/(\\d+)/name"),
        FLAG("/(preferred|available)/(\\d+)/enabled");
    pointer = std::regex_replace(pointer, NAME, "/$1/$2");
    return json::json_pointer(std::regex_replace(pointer, FLAG, "/$1_enabled/$2"));
}

TEST_F(Tool, ShowGivesEachFieldThatWasApplied) {
    apply_example();
    const json WORDS = {{"NONE", 1}, {"BASIC", 2}, {"PRECONNECT", 3}};
    const json document = json::parse(EXAMPLE);
    for (const json &database : document["databases"]) {
        outcome ended = run({"show", "-o", "json", database["name"]});
        ASSERT_EQ(ended.code, 0) << ended.err;
        const json record = json::parse(ended.out)["record"];
        EXPECT_EQ(record["instance_count"], database["instances"].size());
        EXPECT_EQ(record["service_count"], database["services"].size());
        // An empty list is null when it is flattened.
        const json flat = database.flatten();
        for (const auto &[pointer, value] : flat.items()) {
            json expected = value.is_boolean() ? json(value.get<bool>() ? 1 : 0) : value;
            if (pointer.find("/rcn_policy") != std::string::npos) expected = WORDS[value];
            const json &shown = record.at(place_in_record(pointer));
            EXPECT_TRUE(shown == expected || (value.is_null() && shown.empty())) << pointer;
        }
    }
}

TEST_F(Tool, ShowForPeopleTellsTheWholeRecord) {
    EXPECT_EQ(
        apply(document_with(R"("databases": [{"name": "Sales", "spfile": "", "role": "PRIMARY",
        "enabled": true, "env": ["A=1", "B=2"], "instances": [{"name": "S1", "node": "n1",
        "enabled": false}], "services": [{"name": "Day.Web", "rcn_policy": "BASIC", "enabled": true,
        "preferred": [{"name": "S1", "enabled": true}]}]}])"))
            .code,
        0);
    EXPECT_EQ(run({"show", "sales"}).out, read_whole(TEST_FILES "/shown.txt"));
}

TEST_F(Tool, HostileBytesReachNobodyRaw) {
    ASSERT_EQ(
        apply(document_with(
                  R"("databases": [{"name": "ev\u202eil\u009b\u2028", "spfile": "a\u001b[2J\nb\\",
        "env": ["x", "y"], "instances": [{"name": "i\u061c"}]}])"))
            .code,
        0);
    const std::string D = "DATABASE.DATABASES.ev\u202eil\u009b\u2028";
    put(D + ".DOMAIN", "d\xff\x1b\0"s);
    put(D + ".ENVIRONMENT", "ok\0\xc3\x28\0\0"s);
    put(D + ".\u202e", "\xff");

    outcome list = run({"list"}), show = run({"show", "EV\u202eil\u009b\u2028"}),
            save = run({"export"}), wrong = run({"show", "no\u202e\x1b\xff"});
    EXPECT_EQ(save.code, 8);
    for (const outcome *ended : {&list, &show, &save, &wrong}) {
        for (const std::string *text : {&ended->out, &ended->err}) {
            bool plain = std::all_of(text->begin(), text->end(), [](char byte) {
                return byte == '\n' || (byte >= 0x20 && byte < 0x7f);
            });
            EXPECT_TRUE(plain) << *text;
        }
    }
    EXPECT_EQ(list.out, "ev\\u202eil\\u009b\\u2028\n");
    EXPECT_NE(show.out.find("spfile         a\\x1b[2J\\x0ab\\\\\n"), std::string::npos) << show.out;
    EXPECT_NE(show.out.find("domain         d\\xff\\x1b\n"), std::string::npos) << show.out;

    json record = json::parse(run({"show", "-o", "json", "ev\u202eil\u009b\u2028"}).out)["record"];
    EXPECT_EQ(record["sp_name"], "ev\u202eil\u009b\u2028");
    EXPECT_EQ(record["domain"], nullptr);
    EXPECT_EQ(record["domain_base64"], "ZP8b");
    EXPECT_EQ(record["env"], (json{"ok", nullptr}));
    EXPECT_EQ(record["env_base64"], (json{nullptr, "wyg="}));
    json error = json::parse(run({"export", "-o", "json"}).err);
    EXPECT_EQ(error["problems"].size(), 1u) << error;
}

TEST_F(Tool, FailuresHaveOneCodeAndTellWhatWhereWhy) {
    apply_example();
    const std::map<std::string, std::string> MEANT = {{"<folder>", folder_},
                                                      {"<absent>", "lmdb:" + folder_ + "/absent"},
                                                      {"<long>", std::string(2048, 'x')},
                                                      {"<empty>", ""},
                                                      {"<example>", EXAMPLE_DOCUMENT},
                                                      {"<backup>", folder_ + "/backup"},
                                                      {"<registry>", url_}};
    ASSERT_EQ(run({"backup", folder_ + "/backup"}).code, 0);
    auto meant = [&](const std::string &word) {
        return MEANT.count(word) != 0 ? MEANT.at(word) : word;
    };
    for (const auto &row : rows_of("failures.txt", 3)) {
        SCOPED_TRACE(row[2]);
        const int code = std::stoi(row[0]);
        std::vector<std::string> arguments, command = split(row[2], " > ");
        for (const std::string &word : split(command[0], " "))
            if (word != "<none>") arguments.push_back(meant(word));
        bool chosen = std::count(arguments.begin(), arguments.end(), "--registry") > 0;
        if (!chosen) arguments.insert(arguments.end(), {"--registry", url_});
        surroundings around;
        if (command.size() > 1) around.out_file = command[1];
        outcome ended = run_tool(arguments, around);
        EXPECT_EQ(ended.code, code) << ended.err;
        EXPECT_EQ(ended.out, "");
        EXPECT_EQ(ended.err.rfind("keyviewctl: ", 0), 0u) << ended.err;
        EXPECT_NE(ended.err.find("\n  do:    "), std::string::npos) << ended.err;
        EXPECT_NE(ended.err.find(meant(row[1])), std::string::npos) << ended.err;

        if (row[2].find(" -o ") != std::string::npos) continue;
        arguments.insert(arguments.begin(), {"-o", "json"});
        json error = json::parse(run_tool(arguments, around).err, nullptr, false);
        ASSERT_TRUE(error.is_object());
        EXPECT_EQ(error["exit_code"], code) << error;
    }
    EXPECT_FALSE(std::filesystem::exists(folder_ + "/absent"));
    put("DATABASE.DATABASES.ledger.ROLE", "MASTER\0"s);
    EXPECT_EQ(run({"role", "ledger"}).code, 8) << "a stored word that is no role";
    outcome help = run({"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_NE(help.out.find("apply"), std::string::npos);
    EXPECT_EQ(run({"--version"}).out.rfind("keyviewctl ", 0), 0u);
}

TEST_F(Tool, ALockThatAnotherHoldsIsWaitedForNoLongerThanChosen) {
    apply_example();
    admin::registry registry = admin::registry::open(url_);
    const surroundings IMPATIENT = {EXAMPLE, "", "KEYVIEW_LOCK_WAIT=0"};
    for (const char *name : {"LKRT.DATABASE.DATABASES.sales", "LKRT.STG.DATABASE.STG.node8.stg8",
                             "LKRT.DATABASE.NODEAPPS.node3"}) {
        admin::held_lock held = registry.lock(name, true, 0);
        outcome ended = run({"apply", "-"}, IMPATIENT);
        EXPECT_EQ(ended.code, 5) << name << ended.err;
        EXPECT_NE(ended.err.find(name), std::string::npos) << ended.err;
    }
    EXPECT_EQ(run({"apply", "-"}, IMPATIENT).code, 0);
}

TEST_F(Tool, ARegistryThatCannotBeEnumeratedIsNoEmptyOne) {
    apply_example();
    std::string file = folder_ + "/registry/data.mdb", content = read_whole(file);
    for (size_t at = 0; (at = content.find("Sales\0"s, at)) != std::string::npos;)
        content[at] = 'o';
    std::ofstream(file, std::ios::binary) << content;
    for (const char *command : {"list", "export"}) {
        outcome ended = run({command});
        EXPECT_TRUE(ended.code == 4 || ended.code == 8) << command << ended.code;
        EXPECT_EQ(ended.out, "") << command;
        EXPECT_NE(ended.err.find("DATABASE.DATABASES.sales"), std::string::npos) << ended.err;
    }
}

// Rows of damage, each in a registry of its own: bytes of the file or, with a key, its value.
TEST_F(Tool, CheckTellsWhatIsWrongAndWhere) {
    apply_example();
    const std::string SALES = "DATABASE.DATABASES.sales", DATA = folder_ + "/registry/data.mdb";
    outcome sound = run({"check"});
    EXPECT_EQ(sound.code, 0) << sound.err << sound.out;
    EXPECT_EQ(sound.out.rfind("no damage: 248 keys on ", 0), 0u) << sound.out;
    EXPECT_EQ(json::parse(run({"check", "-o", "json"}).out)["findings"], json::array());
    const std::string CONTENT = read_whole(DATA);
    const struct {
        std::string key, before, after, place, reason;
    } ROWS[] = {
        {"", "Sales\0"s, "Soles\0"s, SALES, "are not those that were written"},
        {"", "DATABASE\1DATABASES\0ledger"s, "DATABASE\1DATABASES\0legger"s,
         "DATABASE.DATABASES.ledger", "is missing, though there are keys below it"},
        {"", "DATABASE\1STG\1node8\0stg8"s, "FATABASE\1STG\1node8\0stg8"s, "page ", "no search"},
        {"", CONTENT.substr(4096 * 4 + 16), "", "the head of data.mdb", "cut short"},
        {SALES, "", "Soles\0"s, SALES, "does not fold to the key's own element"},
        {SALES + ".SPFILE", "", "x", SALES + ".SPFILE", "does not end with a zero byte"},
        {SALES + ".SPFILE", "", "x\0y\0"s, SALES + ".SPFILE", "a zero byte before its end"},
        {SALES + ".ENVIRONMENT", "", "A=1\0"s, SALES + ".ENVIRONMENT", "is not a list of strings"},
        {SALES + ".ENABLED", "", "yes\0"s, SALES + ".ENABLED", "is neither TRUE nor FALSE"},
        {SALES + ".ROLE", "", "MASTER\0"s, SALES + ".ROLE", "is none of the words"},
        {"DATABASE.STG.node1.stg1", "", "", "DATABASE.STG.node1.stg1", "has no own value"},
    };
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.place + row.reason);
        std::string bytes = CONTENT;
        // Unused parts of the file hold copies.
        for (size_t at = 0; !row.before.empty() && (at = bytes.find(row.before, at)) != bytes.npos;)
            bytes.replace(at, row.before.size(), row.after);
        std::ofstream(DATA, std::ios::binary) << bytes;
        if (!row.key.empty()) put(row.key, row.after);
        outcome people = run({"check"}), programs = run({"check", "-o", "json"});
        EXPECT_EQ(people.code, 8) << people.err;
        EXPECT_EQ(programs.code, 8);
        EXPECT_NE(people.out.find(row.reason), std::string::npos) << people.out;
        json answer = json::parse(programs.out, nullptr, false);
        ASSERT_TRUE(answer.is_object()) << programs.out << programs.err;
        bool named = false;
        for (const json &found : answer["findings"]) {
            named =
                named || (found["place"].get<std::string>().rfind(row.place, 0) == 0 &&
                          found["reason"].get<std::string>().find(row.reason) != std::string::npos);
        }
        EXPECT_TRUE(named) << answer;
    }
}

TEST_F(Tool, ExportReplacesAFileOrLeavesIt) {
    namespace fs = std::filesystem;
    apply_example();
    std::string file = folder_ + "/saved.json", link = folder_ + "/link";
    std::ofstream(file) << "old";
    fs::permissions(file, fs::perms(0640));
    fs::create_symlink("saved.json", link);
    EXPECT_EQ(run({"export", link}).code, 0);
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640));
    EXPECT_EQ(read_whole(file), EXAMPLE);

    put("DATABASE.DATABASES.sales.FUTURE", "x");
    outcome refused = run({"export", file});
    EXPECT_EQ(refused.code, 8);
    EXPECT_NE(refused.err.find("DATABASE.DATABASES.sales.FUTURE: "), std::string::npos);
    EXPECT_EQ(read_whole(file), EXAMPLE);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 3);  // no file is left beside
}
