// Memory, tags, text, trace and settings.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "platform/tmem.h"
#include "platform/trcd.h"
#include "platform/txt.h"
#include "registry.h"

namespace keyview::test {

// ---- Memory and tags ----------------------------------------------------------------------------

TEST(Memory, BlocksAreZeroAlsoWhenUsedAgain) {
    void *mem = pgcinit(0);
    for (size_t size : {0U, 1U, 15U, 64U, 1024U, 2048U, 4096U, 4097U, 1000000U}) {
        for (int round = 0; round < 3; ++round) {
            auto *block = static_cast<char *>(tmem_allocm(mem, size));
            ASSERT_NE(block, nullptr) << size;
            EXPECT_EQ(std::count(block, block + size, '\0'), static_cast<ptrdiff_t>(size));
            memset(block, 'x', size);
            tmem_freem(mem, block);
        }
    }
    tmem_freem(mem, nullptr);
    EXPECT_EQ(tmem_allocm(mem, UINT64_MAX), nullptr);
}

TEST(Memory, TagsTakeTwelveBytesAtMost) {
    char bytes[16];
    memset(bytes, '#', sizeof(bytes));
    tmem_fill_tag(bytes, "PRSRCFGC");
    EXPECT_STREQ(std::string(bytes + 12, 4).c_str(), "####");
    EXPECT_NE(tmem_check_tag(bytes, "PRSRCFGC"), 0);
    EXPECT_EQ(tmem_check_tag(bytes, "PRSRCFGB"), 0);
    for (int i = 0; i < 8; ++i) {
        tmem_fill_tag(bytes, "PRSRCFGC");
        bytes[i] ^= 1;
        EXPECT_EQ(tmem_check_tag(bytes, "PRSRCFGC"), 0) << i;
    }
}

// ---- Text ---------------------------------------------------------------------------------------

TEST(Text, OnlyAsciiLettersHaveACase) {
    std::string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    std::string lower(all.size() + 1, '\0');
    std::string upper = lower;
    txtmlo(lower.data(), all.data(), all.size());
    txtmup(upper.data(), all.data(), all.size());
    for (size_t i = 0; i < all.size(); ++i) {
        char c = all[i];
        bool big = c >= 'A' && c <= 'Z';
        bool small = c >= 'a' && c <= 'z';
        EXPECT_EQ(lower[i], big ? c + 32 : c);
        EXPECT_EQ(upper[i], small ? c - 32 : c);
    }
    EXPECT_EQ(txtclo(lower.c_str(), upper.c_str()), 0);
    char target[] = "######";
    txtlo(target, "AbC");
    EXPECT_EQ(std::string(target, 6), std::string("abc\0##", 6));
}

TEST(Text, ComparesApartFromCase) {
    struct {
        const char *a;
        const char *b;
        int sign;
    } const ROWS[] = {{"TRUE", "true", 0},  {"", "", 0},      {"true", "tru", 1},
                      {"tru", "TRUE", -1},  {"a[", "A{", -1}, {"@", "`", -1},
                      {"\xc4", "\xe4", -1}, {"a", "\xff", -1}};
    for (const auto &row : ROWS) {
        int32_t result = txtclo(row.a, row.b);
        EXPECT_EQ((result > 0) - (result < 0), row.sign) << row.a << " " << row.b;
    }
}

TEST(Text, ReplacesInPlaceWithinItsCapacity) {
    struct {
        const char *text;
        const char *from;
        const char *to;
        size_t capacity;
        const char *result;  // null if it is refused
    } const ROWS[] = {
        {"a.b.c", ".", "*", 7, "a*b*c"},
        {"...", ".", "*", 4, "***"},
        {"", ".", "*", 1, ""},
        {"abc", ".", "*", 4, "abc"},
        {"a.b", ".", "--", 5, "a--b"},
        {"a.b", ".", "--", 4, nullptr},
        {"aaa", "aa", "b", 4, "ba"},
        {"aaa", "aa", "bbbb", 6, "bbbba"},
        {"x..y", "..", "", 5, "xy"},
        {".", ".", "..", 3, ".."},
        {"....", ".", "ab", 9, "abababab"},
        {"abc", "", "x", 9, nullptr},
        {"abc", "abcd", "x", 4, "abc"},
    };
    for (const auto &row : ROWS) {
        SCOPED_TRACE(std::string(row.text) + " " + row.from + " " + row.to);
        char text[16] = "###############";
        memcpy(text, row.text, strlen(row.text) + 1);
        uint64_t length = 99;
        int32_t rc = txtrep(text, strlen(row.text), row.capacity, row.from, strlen(row.from),
                            row.to, strlen(row.to), &length);
        EXPECT_EQ(rc == 0, row.result != nullptr);
        EXPECT_STREQ(text, row.result != nullptr ? row.result : row.text);
        EXPECT_EQ(length, rc == 0 ? strlen(row.result) : 99);
        EXPECT_EQ(text[row.capacity], '#') << "beyond the capacity";
    }
}

// ---- Trace --------------------------------------------------------------------------------------

class Trace : public testing::Test {
  protected:
    Trace() : path(scratch.path + "/trace") {}
    ~Trace() override {
        keyview_host_set_trace("none");
        keyview_host_set_trace_level(TRCD_FAILURE);
    }

    void to_file() { ASSERT_EQ(keyview_host_set_trace(("file:" + path).c_str()), 0); }
    std::string content() {
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }

    scratch_directory scratch;
    std::string path;
    void *trc = trcdcompreg("PRSR component", "PRSR", 1024, 0, 0, 0, 0);
};

TEST_F(Trace, AValueNeverForgesALine) {
    to_file();
    struct {
        std::string value;
        std::string written;
    } const ROWS[] = {
        {"plain text 'quoted' %s", "plain text 'quoted' %s"},
        {"line\nfeed\r\ttab", "line\\x0afeed\\x0d\\x09tab"},
        {"\x1b[31mred\x07\x7f", "\\x1b[31mred\\x07\\x7f"},
        {"back\\slash \\x0a", "back\\\\slash \\\\x0a"},
        {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80",
         "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"\xc2\x85|\xc2\x9b", "\\xc2\\x85|\\xc2\\x9b"},                    // C1 controls
        {"\xe2\x80\xa8|\xe2\x80\xa9", "\\xe2\\x80\\xa8|\\xe2\\x80\\xa9"},  // line separators
        {"\xe2\x80\xae|\xe2\x81\xa6|\xd8\x9c|\xe2\x80\x8f",
         "\\xe2\\x80\\xae|\\xe2\\x81\\xa6|\\xd8\\x9c|\\xe2\\x80\\x8f"},  // bidirectional
        {"\x80|\xff|\xc3|\xe2\x82", "\\x80|\\xff|\\xc3|\\xe2\\x82"},     // no UTF-8
        {"\xc0\x8a|\xe0\x80\x8a", "\\xc0\\x8a|\\xe0\\x80\\x8a"},         // overlong line feeds
        {"\xed\xa0\x80|\xf4\x90\x80\x80", "\\xed\\xa0\\x80|\\xf4\\x90\\x80\\x80"},
        {"\xf8\x88\x80\x80\x80", "\\xf8\\x88\\x80\\x80\\x80"},
        {std::string(3000, 'x') + "\n", std::string(3000, 'x') + "\\x0a"},  // a long line
    };
    std::string expected;
    for (const auto &row : ROWS) {
        trcdprintf(trc, TRCD_FAILURE, "value [%s]", row.value.c_str());
        expected += "PRSR 0: value [" + row.written + "]\n";
    }
    // Time, program and process stand before each line.
    std::regex head(
        "(^|\n)\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z [^ \\[]+\\[\\d+\\] ");
    EXPECT_EQ(std::regex_replace(content(), head, "$1"), expected);
}

TEST_F(Trace, WritesLinesUpToItsLevel) {
    to_file();
    for (int32_t highest : {0, 2, 4}) {
        ASSERT_EQ(keyview_host_set_trace_level(highest), 0);
        for (int32_t level : {0, 2, 4}) {
            size_t before = content().size();
            trcdprintf(trc, level, "line %d", level);
            EXPECT_EQ(content().size() > before, level <= highest) << level << " " << highest;
        }
    }
    keyview_host_set_trace("none");
    size_t before = content().size();
    trcdprintf(trc, 0, "nowhere");
    EXPECT_EQ(content().size(), before);
}

TEST_F(Trace, ANullHandleBreaksNothing) {
    trcdprintf(nullptr, 0, "%s", "silent");
    to_file();
    trcdprintf(nullptr, 0, "%s", "by printf");
    trcdprintft(nullptr, 0, "%s", "by printft");
    EXPECT_NE(content().find(" - 0: by printf\n"), std::string::npos);
    EXPECT_NE(content().find(" - 0: by printft\n"), std::string::npos);
}

TEST_F(Trace, AFileIsOpenedAnewAfterARotation) {
    to_file();
    trcdprintf(trc, 0, "first");
    std::filesystem::rename(path, path + ".1");
    trcdprintf(trc, 0, "second");
    to_file();
    trcdprintf(trc, 0, "third");
    EXPECT_EQ(content().find("second"), std::string::npos);
    EXPECT_NE(content().find("third"), std::string::npos);
}

TEST_F(Trace, RefusesSinksThatCannotBeUsed) {
    to_file();
    for (const char *sink : {"file:", "file:/nowhere/at/all", "file:/tmp", "bogus", "stderr:x"}) {
        EXPECT_NE(keyview_host_set_trace(sink), 0) << sink;
        EXPECT_NE(std::string(keyview_host_last_error()).find(sink), std::string::npos);
    }
    trcdprintf(trc, 0, "still here");
    EXPECT_NE(content().find("still here"), std::string::npos);
}

TEST_F(Trace, SpeaksTheProtocolOfTheJournal) {
    int receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, ""};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(receiver, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    ASSERT_EQ(keyview_host_set_trace(("journal:" + path).c_str()), 0);
    trcdprintf(trc, 0, "a %s", "b\nPRIORITY=7");
    char entry[4096] = "";
    ASSERT_GT(recv(receiver, entry, sizeof(entry) - 1, MSG_DONTWAIT), 0);
    EXPECT_NE(std::string(entry).find("PRIORITY=3\n"), std::string::npos) << entry;
    EXPECT_NE(std::string(entry).find("\nKEYVIEW_COMPONENT=PRSR\n"), std::string::npos) << entry;
    EXPECT_NE(std::string(entry).find("\nMESSAGE=a b\\x0aPRIORITY=7\n"), std::string::npos)
        << entry;
    ::close(receiver);
}

TEST_F(Trace, LinesOfThreadsNeverMix) {
    to_file();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < 50; ++n)
                trcdprintf(trc, 0, "<%s>", std::string(500, static_cast<char>('a' + i)).c_str());
        });
    }
    for (int i = 0; i < 20; ++i)
        to_file();
    for (std::thread &thread : threads)
        thread.join();
    std::istringstream lines(content());
    std::regex whole(".*PRSR 0: <(a{500}|b{500}|c{500}|d{500})>");
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_EQ(count, 200);
}

// ---- Settings -----------------------------------------------------------------------------------

TEST(Settings, TheEnvironmentCountsUntilTheProgramChooses) {
    struct {
        const char *text;
        int64_t wait_ms;  // -1 if it is refused
    } const ROWS[] = {{"", 60000},   {"0", 0},           {"7", 7000}, {"86400", 86400000},
                      {"86401", -1}, {"-1", -1},         {"1.5", -1}, {" 7", -1},
                      {"7s", -1},    {"99999999999", -1}};
    for (const auto &row : ROWS) {
        setenv("KEYVIEW_LOCK_WAIT", row.text, 1);
        if (row.wait_ms >= 0) {
            EXPECT_EQ(lock_wait_ms(), row.wait_ms) << row.text;
        } else {
            EXPECT_EQ(failure_of([] { lock_wait_ms(); }), failure::usage) << row.text;
        }
    }
    EXPECT_EQ(keyview_host_set_lock_wait(5), 0);
    EXPECT_EQ(lock_wait_ms(), 5U);
    EXPECT_NE(keyview_host_set_lock_wait(86400001), 0);
    EXPECT_EQ(keyview_host_set_lock_wait(-1), 0);
    unsetenv("KEYVIEW_LOCK_WAIT");
    EXPECT_EQ(lock_wait_ms(), 60000U);

    unsetenv("KEYVIEW_REGISTRY");
    EXPECT_EQ(failure_of([] { registry_url(); }), failure::usage);
    setenv("KEYVIEW_REGISTRY", "lmdb:/from/environment", 1);
    EXPECT_EQ(registry_url(), "lmdb:/from/environment");
    EXPECT_EQ(keyview_host_set_registry("lmdb:/chosen"), 0);
    EXPECT_EQ(registry_url(), "lmdb:/chosen");
    EXPECT_EQ(keyview_host_set_registry(""), 0);
    EXPECT_EQ(registry_url(), "lmdb:/from/environment");
    unsetenv("KEYVIEW_REGISTRY");
}

}  // namespace keyview::test
