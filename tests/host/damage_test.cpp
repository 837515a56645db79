// The files of the embedded registry in other hands: cut short, emptied, deleted or replaced, made
// by several processes at once, grown by one while others read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <lmdb.h>
#include <sys/stat.h>

#include <fstream>

#include "admin/care/inspection.h"
#include "host/embedded/pages/page_format.h"
#include "host/embedded/row.h"
#include "process.h"
#include "registry.h"

static int lmdb_major = 0;

// Replaces LMDB's own, so that a test can run over another release.
extern "C" char *mdb_version(int *major, int *minor, int *patch) {
    static char text[] = "LMDB 1.9";
    if (major != nullptr) *major = lmdb_major;
    if (minor != nullptr) *minor = MDB_VERSION_MINOR;
    if (patch != nullptr) *patch = 0;
    return text;
}

namespace keyview::test {

namespace fs = std::filesystem;

class Damage : public RegistryTest {
  protected:
    std::string file(const char *name) const { return directory + "/" + name; }

    // What the check reports; empty if nothing.
    static std::string check_of(const std::string &registry_url) {
        std::string text;
        check_backend(
            registry_url,
            [&](auto &subject, auto &reason) { text += subject + " " + reason + "; "; },
            [](auto, auto) {});
        return text;
    }

    void expect_sound() {
        for (const admin::finding &one : admin::check_registry().findings)
            ADD_FAILURE() << one.path << " " << one.reason;
    }
};

TEST_F(Damage, AFileThatIsCutShortIsNeverStartedAnew) {
    apply({put("a.b", std::string(30000, 'v'))});
    close();
    auto whole = fs::file_size(file("data.mdb"));
    std::string text;
    for (uintmax_t size : {whole - 1, whole / 2, uintmax_t{8192}, uintmax_t{100}, uintmax_t{0}}) {
        fs::resize_file(file("data.mdb"), size);
        for (open_mode mode : {open_mode::existing, open_mode::create}) {
            EXPECT_EQ(failure_of([&] { open_backend(url, mode); }, &text), failure::content);
            EXPECT_NE(text.find(size == 0     ? "the file is empty"
                                : size < 8192 ? "cannot be read"
                                              : "cut short, to " + std::to_string(size) + " bytes"),
                      text.npos)
                << text;
            EXPECT_NE(text.find("keyviewctl restore"), text.npos) << text;
        }
        EXPECT_EQ(fs::file_size(file("data.mdb")), size);
    }
}

TEST_F(Damage, ACreationThatWasInterruptedIsFinished) {
    close();
    auto whole = fs::file_size(file("data.mdb"));
    fs::resize_file(file("data.mdb"), 8192);
    open();
    EXPECT_EQ(fs::file_size(file("data.mdb")), whole);
    close();
    fs::remove(file("data.mdb"));
    fs::create_symlink("/dev/null", file("data.new"));  // left behind, and not to be followed
    open();
    apply({put("a.b", "v")});
    expect_sound();
    EXPECT_FALSE(fs::exists(fs::symlink_status(file("data.new"))));
}

TEST_F(Damage, SeveralMayCreateItAtOnce) {
    for (int round = 0; round < 10; ++round) {
        std::string made_url = "lmdb:" + scratch.path + "/r" + std::to_string(round);
        std::vector<std::unique_ptr<child_process>> creators;
        for (int i = 0; i < 5; ++i) {
            creators.push_back(std::make_unique<child_process>([&](const meeting &start) {
                if (!start.wait()) return 1;
                backend made = open_backend(made_url, open_mode::create);
                made.keys->apply({put("a.k" + std::to_string(i), "v")});
                return 0;
            }));
        }
        for (auto &one : creators)
            one->here.tell();
        for (auto &one : creators)
            EXPECT_EQ(one->status(), 0);
        std::string found;
        backend made = open_backend(made_url, open_mode::existing);
        for (int i = 0; i < 5; ++i)
            EXPECT_TRUE(made.keys->now()->read("a.k" + std::to_string(i), &found)) << i;
    }
}

// The file of a copy ends with its last page in use.
TEST_F(Damage, ACopyThatLmdbMadeIsARegistry) {
    apply({put("a.b", "v"), put("a.c", std::string(30000, 'v')), put("a.d", "w")});
    for (int i = 0; i < 5; ++i)
        apply({put("a.k" + std::to_string(i), std::string(9000, 'k')), removal("a.d")});
    apply({removal("a.k1"), removal("a.k3")});
    close();
    for (unsigned flags : {0U, unsigned{MDB_CP_COMPACT}}) {
        SCOPED_TRACE(flags);
        std::string target = scratch.path + "/copy" + std::to_string(flags);
        std::string copied = "lmdb:" + target;
        fs::create_directory(target);
        MDB_env *env = nullptr;
        mdb_env_create(&env);
        ASSERT_EQ(mdb_env_open(env, directory.c_str(), MDB_RDONLY, 0600), 0);
        ASSERT_EQ(mdb_env_copy2(env, target.c_str(), flags), 0);
        mdb_env_close(env);
        EXPECT_LT(fs::file_size(target + "/data.mdb"), fs::file_size(file("data.mdb")));
        EXPECT_EQ(check_of(copied), "");
        for (size_t size : {size_t{2}, size_t{200}, size_t{400000}}) {
            backend made = open_backend(copied, open_mode::existing);
            std::string value;
            EXPECT_TRUE(made.keys->now()->read("a.c", &value));
            EXPECT_EQ(value, std::string(30000, 'v'));
            made.keys->apply({put("a.k" + std::to_string(size), std::string(size, 'x'))});
            made = {};
            EXPECT_EQ(check_of(copied), "") << size;
        }
    }
}

// Then LMDB alone decides on the file, and the check reports that it inspected no page.
TEST_F(Damage, PagesOfAnotherFormatAreNotInspected) {
    apply({put("a.b", "v")});
    close();
    lmdb_major = 1;
    std::string text = check_of(url);
    EXPECT_NE(text.find("was not inspected: LMDB 1.9"), text.npos) << text;
    open();
    apply({put("a.b", "w")});
    EXPECT_EQ(stored("a.b"), "w");
    close();
    lmdb_major = 0;
    EXPECT_EQ(check_of(url), "");

    std::fstream data(file("data.mdb"), std::ios::in | std::ios::out | std::ios::binary);
    for (int meta : {1, 0}) {
        data.seekp(meta * 4096 + 16 + 4);
        data.put(2).flush();
        text = check_of(url);
        const char *expected = meta == 1 ? "is not of a known kind" : "its format has version 2";
        EXPECT_NE(text.find(expected), text.npos) << text;
        EXPECT_EQ(failure_of([&] { open(); }), failure::content);
    }
}

TEST_F(Damage, TheDoctorFindsADamagedValue) {
    apply({put("a.b", "a value of its own"), put("a.c", "w")});
    auto found = [&] {
        std::string text;
        diagnose_backend(url, [&](const diagnosis &one) {
            if (one.state == health::bad) text += one.subject + ": " + one.text;
        });
        return text;
    };
    EXPECT_EQ(found(), "");
    std::fstream data(file("data.mdb"), std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(data), {});
    data.seekp(static_cast<std::streamoff>(bytes.rfind("value of its own")));
    data.put('V').flush();
    EXPECT_EQ(found().rfind("content: a.b has stored bytes", 0), 0U) << found();
    apply({put("a.b", "back")});
    EXPECT_EQ(found(), "");
}

// Two writers and a reader, each with the map it has come to know so far.
// A file that is too large to be walked when it is opened: a change of a damaged row walks it.
TEST_F(Damage, ASizeThatIsDamagedIsNotRepairedInPlace) {
    std::vector<change> rows;
    for (int n = 0; n < 640; ++n) {
        rows.push_back(put("a.long" + std::to_string(n), std::string(8000, 'v')));
        rows.push_back(put("a.row" + std::to_string(n), "value"));
    }
    apply(rows);
    close();
    std::ifstream whole(file("data.mdb"), std::ios::binary);
    std::string bytes{std::istreambuf_iterator<char>(whole), {}};
    std::map<std::string, size_t> nodes;  // of short rows, by path: where the size of the value is
    constexpr size_t PAGE = 4096;
    for (size_t page = 2 * PAGE; page < bytes.size(); page += PAGE) {
        const page_head head = value_at<page_head>(bytes, page);
        if (head.kind != LEAF_PAGE || head.number != page / PAGE) continue;
        for (size_t at = sizeof(head); at < head.nodes.lower; at += sizeof(uint16_t)) {
            const size_t node = page + value_at<uint16_t>(bytes, page + at);
            const node_head found = value_at<node_head>(bytes, node);
            const std::string_view text(bytes.data() + node + sizeof(found),
                                        found.key_size + found.value_size());
            row known;
            if (found.flags == 0 &&
                read_row(text.substr(0, found.key_size), text.substr(found.key_size), &known))
                nodes[path_of_row(text.substr(0, found.key_size), text.substr(found.key_size))] =
                    node;
        }
    }
    for (int n = 0; n < 640; n += 40) {
        const std::string path = "a.row" + std::to_string(n);
        ASSERT_EQ(nodes.count(path), 1U);
        std::string damaged = bytes;
        damaged[nodes[path]] ^= 2;
        std::ofstream(file("data.mdb"), std::ios::binary) << damaged;
        child_process repair([&](const meeting &) {
            open();
            if (stored("a.long7") != std::string(8000, 'v')) return 1;
            std::string text;
            failure_of([&] { n % 80 == 0 ? apply({put(path, "longer")}) : apply({removal("a")}); },
                       &text);
            return text.find("overlap or leave a gap") == text.npos ? 2 : 0;
        });
        EXPECT_EQ(repair.status(), 0) << path;
    }
    std::ofstream(file("data.mdb"), std::ios::binary) << bytes;
}

TEST_F(Damage, TheFileGrowsBeforeItsMapAndNeverShrinks) {
    apply({put("a.b", "0")});
    child_process reader([&](const meeting &parent) {
        parent.tell();
        for (int last = -1; last < 7;) {
            int now = std::stoi(stored("a.b"));
            if (now < last) return 1;
            last = now;
        }
        return stored("a.c7").size() == 900000 ? 0 : 2;
    });
    child_process second([&](const meeting &parent) {
        for (int i = 1; i < 8; i += 2) {
            if (!parent.wait()) return 1;
            apply({put("a.c" + std::to_string(i), std::string(900000, 'v')),
                   put("a.b", std::to_string(i))});
            parent.tell();
        }
        return 0;
    });
    ASSERT_TRUE(reader.here.wait());
    for (int i = 1; i < 8; i += 2) {
        second.here.tell();
        ASSERT_TRUE(second.here.wait());
        auto before = fs::file_size(file("data.mdb"));
        apply({put("a.c" + std::to_string(i + 1), std::string(1000, 'v'))});
        EXPECT_GE(fs::file_size(file("data.mdb")), before);
        expect_sound();
    }
    EXPECT_EQ(second.status(), 0);
    EXPECT_EQ(reader.status(), 0);
}

// An inspection of the file while it changes must not report the change as damage.
TEST_F(Damage, NothingIsWrongBesideAWriter) {
    apply({put("a.b", "0")});
    close();
    child_process writer([&](const meeting &parent) {
        open();
        parent.tell();
        for (size_t i = 0;; ++i)
            apply({put("a.k" + std::to_string(i % 50), std::string(i % 7 * 900, 'v')),
                   removal("a.k" + std::to_string((i + 25) % 50))});
        return 0;
    });
    ASSERT_TRUE(writer.here.wait());
    for (int i = 0; i < 400 && !HasFailure(); ++i) {
        open();
        EXPECT_EQ(stored("a.b"), "0");
        close();
        if (i % 4 == 0) expect_sound();
    }
}

TEST_F(Damage, FilesThatWereTakenAwayAreNoticed) {
    apply({put("a.b", "v")});
    close();
    auto replace = [](const std::string &path) {
        fs::copy_file(path, path + ".copy");
        fs::rename(path + ".copy", path);
    };
    auto remove = [](const std::string &path) { fs::remove(path); };
    auto empty = [](const std::string &path) { fs::resize_file(path, 0); };
    auto halve = [](const std::string &path) { fs::resize_file(path, fs::file_size(path) / 2); };
    auto exchange = [&](const std::string &) {
        fs::rename(directory, directory + ".moved");
        fs::create_directory(directory);
    };
    const struct {
        const char *name;
        std::function<void(const std::string &)> harm;
        const char *expected;
    } ROWS[] = {
        {"data.mdb", remove, "data.mdb was deleted"}, {"data.mdb", replace, "data.mdb was deleted"},
        {"data.mdb", empty, "data.mdb was deleted"},  {"data.mdb", halve, "was cut short"},
        {"lock.mdb", remove, "lock.mdb was deleted"}, {"lock.mdb", replace, "lock.mdb was deleted"},
        {"lock.mdb", empty, "lock.mdb was deleted"},  {"locks", remove, "locks was deleted"},
        {"locks", replace, "locks was deleted"},      {"", exchange, "directory was replaced"},
    };
    for (const auto &row : ROWS) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.expected);
        fs::copy(directory, directory + ".kept");
        child_process user([&](const meeting &) {
            open();
            apply({put("a.b", "v")});
            if (stored("a.b") != "v") return 1;
            row.harm(file(row.name));
            for (bool writes : {true, false}) {
                std::string text;
                if (!writes) usleep(150000);  // readers inspect the files from time to time
                failure_of([&] { writes ? (void)apply({put("a.b", "w")}) : (void)stored("a.b"); },
                           &text);
                if (text.find(row.expected) == text.npos) return puts(text.c_str()), 2;
            }
            return 0;
        });
        EXPECT_EQ(user.status(), 0);
        fs::remove_all(directory);
        fs::remove_all(directory + ".moved");
        fs::rename(directory + ".kept", directory);
    }
}

// What two processes with one number, in two pid namespaces, do to each other's readers.
TEST_F(Damage, AProcessOfTheSameNumberElsewhereIsReported) {
    apply({put("a.b", "v")});
    close();
    child_process second([&](const meeting &parent) {
        if (!parent.wait()) return 1;
        std::string text;
        failure kind = failure_of([&] { open_backend(url, open_mode::existing); }, &text);
        return kind == failure::registry && text.find("pid namespace") != text.npos ? 0 : 2;
    });
    int fd = ::open(file("lock.mdb").c_str(), O_RDWR | O_CLOEXEC);
    struct flock number = {};
    number.l_type = F_WRLCK;
    number.l_whence = SEEK_SET;
    number.l_start = second.pid;
    number.l_len = 1;
    ASSERT_EQ(fcntl(fd, F_SETLK, &number), 0);
    second.here.tell();
    EXPECT_EQ(second.status(), 0);
    ::close(fd);
}

}  // namespace keyview::test
