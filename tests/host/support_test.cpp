// Memory, tags, text, trace and settings.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <regex>
#include <sstream>
#include <tuple>

#include "host/entry/backends.h"
#include "host/registry/lock_wait.h"
#include "host/support/fd.h"
#include "platform/tmem.h"
#include "platform/trcd.h"
#include "platform/txt.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

// ---- Memory and tags ----------------------------------------------------------------------------

TEST(Memory, BlocksAreZeroAlsoWhenUsedAgain) {
    void *mem = pgcinit(0);
    for (int round = 0; round < 3; ++round) {
        for (size_t size : {0U, 1U, 16U, 17U, 64U, 1024U, 2048U, 4096U, 4097U, 1000000U}) {
            auto *block = static_cast<char *>(tmem_allocm(mem, size));
            ASSERT_NE(block, nullptr) << size;
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(max_align_t), 0U) << size;
            EXPECT_EQ(std::string(block, size), std::string(size, '\0')) << size;
            memset(block, 'x', size);
            tmem_freem(mem, block);
        }
    }
    tmem_freem(mem, nullptr);
    EXPECT_EQ(tmem_allocm(mem, UINT64_MAX), nullptr);
}

// Threads pass blocks on to each other and end; what one gave back another may have taken.
TEST(Memory, BlocksMayComeBackFromOtherThreads) {
    void *mem = pgcinit(0);
    constexpr size_t COUNT = 5000;
    std::vector<unsigned char *> blocks(COUNT);
    auto size_of = [](size_t i) { return i % 4200; };
    for (int round = 0; round < 3; ++round) {
        std::thread([&] {
            for (size_t i = 0; i < COUNT; ++i) {
                blocks[i] = static_cast<unsigned char *>(tmem_allocm(mem, size_of(i)));
                EXPECT_EQ(std::count(blocks[i], blocks[i] + size_of(i), 0), int64_t(size_of(i)));
                memset(blocks[i], static_cast<int>(i), size_of(i));
            }
        }).join();
        in_threads(2, [&](int thread) {
            for (auto i = static_cast<size_t>(thread); i < COUNT; i += 2) {
                auto own = static_cast<unsigned char>(i);
                EXPECT_EQ(std::count(blocks[i], blocks[i] + size_of(i), own), int64_t(size_of(i)));
                tmem_freem(mem, blocks[i]);
            }
        });
    }
}

#ifndef KEYVIEW_SANITIZED

// A program that once needed much must not keep it, and nothing of a thread that has ended.
TEST(Memory, AThreadKeepsABoundedAmount) {
    void *mem = pgcinit(0);
    std::vector<void *> blocks(64 << 10);
    size_t before = mallinfo2().uordblks;
    if (before == 0) GTEST_SKIP() << "another allocator counts elsewhere";
    std::thread([&] {
        for (void *&block : blocks)
            block = tmem_allocm(mem, 1024);
        EXPECT_GT(mallinfo2().uordblks - before, size_t{64} << 20);
        for (void *block : blocks)
            tmem_freem(mem, block);
        EXPECT_LT(mallinfo2().uordblks - before, size_t{17} << 20);
        EXPECT_GT(mallinfo2().uordblks - before, size_t{1} << 20);
        // Then it needs another size: this is what it keeps.
        blocks.resize(1000);
        for (void *&block : blocks)
            block = tmem_allocm(mem, 32);
        for (void *block : blocks)
            tmem_freem(mem, block);
        size_t kept = mallinfo2().uordblks;
        EXPECT_LT(kept - before, size_t{17} << 20);
        for (void *&block : blocks)
            block = tmem_allocm(mem, 32);
        EXPECT_EQ(mallinfo2().uordblks, kept);
        for (void *block : blocks)
            tmem_freem(mem, block);
    }).join();
    EXPECT_LT(mallinfo2().uordblks, before + (size_t{1} << 20));
}

TEST(MemoryDeathTest, ABlockIsGivenBackOnce) {
    void *mem = pgcinit(0);
    for (size_t size : {0U, 100U, 4096U}) {
        void *block = tmem_allocm(mem, size);
        tmem_freem(mem, block);
        EXPECT_DEATH(tmem_freem(mem, block), "given back twice") << size;
    }
}

#endif

TEST(Memory, TagsTakeTwelveBytesAtMost) {
    char bytes[17] = "################";
    for (int i = 0; i < 8; ++i) {
        tmem_fill_tag(bytes, "PRSRCFGC");
        EXPECT_NE(tmem_check_tag(bytes, "PRSRCFGC"), 0);
        EXPECT_EQ(tmem_check_tag(bytes, "PRSRCFGB"), 0);
        bytes[i] ^= 1;
        EXPECT_EQ(tmem_check_tag(bytes, "PRSRCFGC"), 0) << i;
    }
    EXPECT_STREQ(bytes + 12, "####");
}

// ---- Text ---------------------------------------------------------------------------------------

TEST(Text, OnlyAsciiLettersHaveACase) {
    std::string all;
    for (int c = 1; c < 256; ++c)
        all += static_cast<char>(c);
    std::string lower(all.size() + 1, '\0');
    std::string upper(all.size() + 1, '\0');
    txtmlo(lower.data(), all.data(), all.size());
    txtmup(upper.data(), all.data(), all.size());
    for (size_t i = 0; i < all.size(); ++i) {
        char c = all[i];
        EXPECT_EQ(lower[i], c >= 'A' && c <= 'Z' ? c + 32 : c);
        EXPECT_EQ(upper[i], c >= 'a' && c <= 'z' ? c - 32 : c);
    }
    EXPECT_EQ(txtclo(lower.c_str(), upper.c_str()), 0);
    char target[] = "######";
    txtlo(target, "AbC");
    EXPECT_EQ(std::string(target, 6), std::string("abc\0##", 6));
    for (const char *longer : {"TRUE", "trve", "tru\xff", "true"})
        EXPECT_TRUE(txtclo("Tru", longer) < 0 && txtclo(longer, "Tru") > 0) << longer;
    EXPECT_NE(txtclo("a[@", "A{`"), 0) << "no letters";
}

TEST(Text, ReplacesInPlaceWithinItsCapacity) {
    using std::string;
    const std::tuple<string, string, string, size_t, string> ROWS[] = {
        {"a.b.c", ".", "*", 7, "a*b*c"},   {"", ".", "*", 1, ""},
        {"a.b", ".", "--", 4, "refused"},  {"aaa", "aa", "b", 4, "ba"},
        {"aaa", "aa", "bbbb", 6, "bbbba"}, {"....", ".", "ab", 9, "abababab"},
        {"abc", "", "x", 9, "refused"},
    };
    for (const auto &[before, from, to, capacity, after] : ROWS) {
        string text = before + '\0' + string(16, '#');
        uint64_t length = before.size();
        int32_t rc = txtrep(text.data(), before.size(), capacity, from.data(), from.size(),
                            to.data(), to.size(), &length);
        EXPECT_EQ(rc == 0, after != "refused") << before;
        EXPECT_EQ(text.substr(0, length + 1), (rc == 0 ? after : before) + '\0') << before;
        EXPECT_EQ(text.substr(capacity), string(text.size() - capacity, '#')) << before;
    }
}

// ---- Trace --------------------------------------------------------------------------------------

class Trace : public testing::Test {
  protected:
    ~Trace() override {
        (void)keyview_host_set_trace("none");
        (void)keyview_host_set_trace_level(TRCD_FAILURE);
    }

    void to_file() { ASSERT_EQ(keyview_host_set_trace(("file:" + path).c_str()), 0); }

    // The lines so far, without time, program and process before each.
    std::string lines() {
        static const std::regex HEAD(
            "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z [^ \\[]+\\[\\d+\\] ");
        std::stringstream text;
        text << std::ifstream(path).rdbuf();
        return std::regex_replace(text.str(), HEAD, "");
    }

    scratch_directory scratch;
    std::string path = scratch.path + "/trace";
    void *trc = trcdcompreg("PRSR component", "PRSR", 1024, 0, 0, 0, 0);
};

// clang-format off
static const std::pair<std::string, std::string> HOSTILE[] = {
    {"plain 'text' %s", "plain 'text' %s"},
    {"line\nfeed\r\ttab", "line\\x0afeed\\x0d\\x09tab"},
    {"\x1b[31mred\x07\x7f", "\\x1b[31mred\\x07\\x7f"},
    {"back\\slash \\x0a", "back\\\\slash \\\\x0a"},
    {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80", "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"},
    {"C1 \xc2\x85|\xc2\x9b", "C1 \\xc2\\x85|\\xc2\\x9b"},
    {"separators \xe2\x80\xa8|\xe2\x80\xa9", "separators \\xe2\\x80\\xa8|\\xe2\\x80\\xa9"},
    {"directions \xe2\x80\xae|\xe2\x81\xa6|\xd8\x9c", "directions \\xe2\\x80\\xae|\\xe2\\x81\\xa6|\\xd8\\x9c"},
    {"no UTF-8 \x80|\xff|\xc3|\xe2\x82", "no UTF-8 \\x80|\\xff|\\xc3|\\xe2\\x82"},
    {"overlong \xc0\x8a|\xe0\x80\x8a", "overlong \\xc0\\x8a|\\xe0\\x80\\x8a"},
    {"surrogate \xed\xa0\x80", "surrogate \\xed\\xa0\\x80"},
    {"beyond \xf4\x90\x80\x80|\xf8\x88\x80\x80\x80", "beyond \\xf4\\x90\\x80\\x80|\\xf8\\x88\\x80\\x80\\x80"},
    {std::string(3000, 'x') + "\n", std::string(3000, 'x') + "\\x0a"},
};
// clang-format on

TEST_F(Trace, AValueNeverForgesALine) {
    to_file();
    std::string expected;
    for (const auto &[value, written] : HOSTILE) {
        trcdprintf(trc, TRCD_FAILURE, "value [%s]", value.c_str());
        expected += "PRSR 0: value [" + written + "]\n";
    }
    EXPECT_EQ(lines(), expected);
}

TEST_F(Trace, WritesLinesUpToItsLevel) {
    trcdprintf(trc, 0, "nowhere");
    trcdprintf(nullptr, 0, "nowhere");
    to_file();
    std::string expected;
    for (int32_t highest : {0, 2, 4}) {
        ASSERT_EQ(keyview_host_set_trace_level(highest), 0);
        for (int32_t level : {0, 2, 4}) {
            trcdprintf(trc, level, "below %d", highest);
            if (level > highest) continue;
            expected +=
                "PRSR " + std::to_string(level) + ": below " + std::to_string(highest) + "\n";
        }
    }
    trcdprintf(nullptr, 0, "%s", "printf");
    trcdprintft(nullptr, 0, "%s", "printft");
    EXPECT_EQ(lines(), expected + "- 0: printf\n- 0: printft\n");
}

TEST_F(Trace, FollowsTheEnvironmentUntilTheProgramChooses) {
    const std::string file = "file:" + path;
    const std::tuple<std::string, const char *, std::string, int, const char *> ROWS[] = {
        // KEYVIEW_TRACE, its level, the program's choice: exit status, lines
        {file, "4", "", 0, "PROG 4: progress\n"},
        {file, "", "", 0, ""},
        {"none", "4", file, 0, "PROG 4: progress\n"},
        {file, "4", "none", 0, ""},
        {"bogus", "4", "", 2, ""},
        {file, "high", "", 2, ""},
        {file, "4", "bogus", 1, ""},
    };
    for (const auto &row : ROWS) {
        const auto &[sink, level, choice, status, written] = row;
        std::filesystem::remove(path);
        child_process program([&row](const meeting &) {
            setenv("KEYVIEW_TRACE", std::get<0>(row).c_str(), 1);
            setenv("KEYVIEW_TRACE_LEVEL", std::get<1>(row), 1);
            const char *arg = std::get<2>(row).empty() ? nullptr : std::get<2>(row).c_str();
            return execl(TRACED_PROGRAM, "program", arg, nullptr);
        });
        EXPECT_EQ(program.status(), status) << sink << " " << level << " " << choice;
        EXPECT_EQ(lines(), written) << sink << " " << level << " " << choice;
    }
}

// A program of another group than its user's, which only a member of a second group or root can make.
TEST_F(Trace, FollowsNoEnvironmentWithRaisedRights) {
    gid_t groups[64];
    const int count = getgroups(64, groups);
    auto other = std::find_if(groups, groups + std::max(count, 0),
                              [](gid_t one) { return one != getgid(); });
    const bool found = other != groups + std::max(count, 0);
    if (!found && getuid() != 0) GTEST_SKIP() << "the user is in one group only";
    const std::string program = std::string(TRACED_PROGRAM) + ".raised";
    std::filesystem::copy_file(TRACED_PROGRAM, program,
                               std::filesystem::copy_options::overwrite_existing);
    ASSERT_EQ(chown(program.c_str(), uid_t(-1), found ? *other : 65534), 0);
    ASSERT_EQ(chmod(program.c_str(), 02755), 0);
    child_process raised([&](const meeting &) {
        setenv("KEYVIEW_TRACE", ("file:" + path).c_str(), 1);
        setenv("KEYVIEW_TRACE_LEVEL", "4", 1);
        return execl(program.c_str(), "program", nullptr);
    });
    EXPECT_EQ(raised.status(), 0);
    EXPECT_FALSE(std::filesystem::exists(path));
    std::filesystem::remove(program);
}

TEST_F(Trace, AFileIsOpenedAnewAndAnUnusableSinkLeavesTheOldOne) {
    to_file();
    std::filesystem::rename(path, path + ".1");
    trcdprintf(trc, 0, "into the old file");
    const mode_t mask = umask(0);
    to_file();
    umask(mask);
    struct stat made = {};
    ASSERT_EQ(stat(path.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0600U);
    for (const char *sink : {"file:", "file:/nowhere/at/all", "file:/tmp", "bogus", "stderr:x"}) {
        EXPECT_NE(keyview_host_set_trace(sink), 0) << sink;
        EXPECT_NE(std::string(keyview_host_last_error()).find(sink), std::string::npos);
    }
    trcdprintf(trc, 0, "into the new file");
    EXPECT_EQ(lines(), "PRSR 0: into the new file\n");
}

TEST_F(Trace, OneFileIsOpenHoweverManyWereChosen) {
    to_file();
    auto open_files = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open_files();
    for (int n = 0; n < 3; ++n) {
        ASSERT_EQ(keyview_host_set_trace(("file:" + path + std::to_string(n)).c_str()), 0);
        trcdprintf(trc, 0, "elsewhere");
    }
    to_file();
    trcdprintf(trc, 0, "here");
    EXPECT_EQ(open_files(), before);
    EXPECT_EQ(lines(), "PRSR 0: here\n");
}

TEST_F(Trace, TheJournalGetsAFieldALine) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unique_fd journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(journal.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(keyview_host_set_trace(("journal:" + path).c_str()), 0);
    ASSERT_EQ(keyview_host_set_trace_level(4), 0);
    for (const auto &[level, priority] : {std::pair(0, "3"), {2, "5"}, {4, "7"}}) {
        trcdprintf(trc, level, "one\nMESSAGE=two");
        char text[512];
        const ssize_t size = recv(journal.get(), text, sizeof text, MSG_DONTWAIT);
        EXPECT_EQ(std::string(text, static_cast<size_t>(std::max(size, ssize_t{0}))),
                  std::string("PRIORITY=") + priority + "\nKEYVIEW_LEVEL=" + std::to_string(level) +
                      "\nKEYVIEW_COMPONENT=PRSR\nSYSLOG_IDENTIFIER=" +
                      program_invocation_short_name + "\nMESSAGE=one\\x0aMESSAGE=two\n");
    }
    EXPECT_NE(keyview_host_set_trace(("journal:/" + std::string(200, 'p')).c_str()), 0);
    for (const char *nobody_reads : {"journal:/nowhere", "syslog"}) {
        ASSERT_EQ(keyview_host_set_trace(nobody_reads), 0);
        trcdprintf(trc, 0, "a line that is lost");
    }
}

TEST_F(Trace, LinesOfThreadsNeverMix) {
    to_file();
    in_threads(5, [&](int thread) {
        for (int n = 0; n < 50 && thread > 0; ++n)
            trcdprintf(trc, 0, "<%s>", std::string(500, static_cast<char>('a' + thread)).c_str());
        for (int n = 0; n < 20 && thread == 0; ++n)
            to_file();
    });
    std::string left = std::regex_replace(lines(), std::regex("PRSR 0: <([b-e])\\1{499}>\n"), ".");
    EXPECT_EQ(left, std::string(200, '.'));
}

// ---- Settings -----------------------------------------------------------------------------------

TEST(Settings, TheEnvironmentCountsUntilTheProgramChooses) {
    setenv("KEYVIEW_LOCK_WAIT", "7", 1);
    setenv("KEYVIEW_REGISTRY", "lmdb:/from/environment", 1);
    EXPECT_EQ(lock_wait_ms(), 7000U);
    EXPECT_EQ(registry_url(), "lmdb:/from/environment");
    EXPECT_EQ(keyview_host_set_lock_wait(5), 0);
    EXPECT_EQ(keyview_host_set_registry("lmdb:/chosen"), 0);
    EXPECT_NE(keyview_host_set_lock_wait(86400001), 0);
    EXPECT_EQ(lock_wait_ms(), 5U);
    EXPECT_EQ(registry_url(), "lmdb:/chosen");
    EXPECT_EQ(keyview_host_set_lock_wait(-1), 0);
    EXPECT_EQ(keyview_host_set_registry(""), 0);
    EXPECT_EQ(registry_url(), "lmdb:/from/environment");
    for (const char *bad : {"86401", "-1", "1.5", " 7", "7s", "99999999999"}) {
        setenv("KEYVIEW_LOCK_WAIT", bad, 1);
        EXPECT_EQ(failure_of([] { lock_wait_ms(); }), failure::usage) << bad;
    }
    unsetenv("KEYVIEW_LOCK_WAIT");
    unsetenv("KEYVIEW_REGISTRY");
    EXPECT_EQ(lock_wait_ms(), 60000U);
    EXPECT_FALSE(any_held_above());
    {
        const setting above("KEYVIEW_LOCKS_ABOVE", "here\tLKRT.a\nthere\tLKRT.b");
        EXPECT_TRUE(any_held_above());
        for (const char *held : {"LKRT.a", "LKRT.b"})
            EXPECT_EQ(lock_wait_for(held), 0U) << "in vain";
        EXPECT_EQ(lock_wait_for("LKRT.c"), 60000U);
    }
    EXPECT_EQ(failure_of([] { registry_url(); }), failure::usage);
}

}  // namespace keyview::test
