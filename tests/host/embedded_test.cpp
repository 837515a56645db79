// The embedded registry as files: where it may lie, what damage and death do to it, how it grows.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <lmdb.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>

#include "process.h"
#include "registry.h"

namespace keyview::test {

namespace fs = std::filesystem;

class Embedded : public RegistryTest {
  protected:
    std::string file(const char *name) { return scratch.path + "/registry/" + name; }
};

// ---- Place and rights ---------------------------------------------------------------------------

TEST_F(Embedded, RefusesWhatIsNoSafePlace) {
    fs::create_directory_symlink(scratch.path + "/registry", scratch.path + "/link");
    mkfifo((scratch.path + "/fifo").c_str(), 0600);
    std::ofstream(scratch.path + "/plain") << "x";
    fs::create_directory(scratch.path + "/empty");
    fs::create_directory(scratch.path + "/open");
    chmod((scratch.path + "/open").c_str(), 0777);
    for (const char *name : {"fifo_data", "link_locks"})
        fs::create_directory(scratch.path + "/" + name);
    mkfifo((scratch.path + "/fifo_data/data.mdb").c_str(), 0600);
    fs::create_symlink("/dev/null", scratch.path + "/link_locks/locks");
    struct {
        const char *name;
        failure existing;
        failure create;
        const char *told;
    } const ROWS[] = {
        {"link", failure::denied, failure::denied, "symbolic link"},
        {"link/", failure::denied, failure::denied, "symbolic link"},
        {"fifo", failure::usage, failure::usage, "not a directory"},
        {"plain", failure::usage, failure::usage, "not a directory"},
        {"open", failure::denied, failure::denied, "every user may write"},
        {"none/deeper", failure::not_found, failure::not_found, ""},
        {"fifo_data", failure::denied, failure::denied, "data.mdb in it is not a regular file"},
        {"link_locks", failure::not_found, failure::denied, ""},
        {"empty", failure::not_found, failure::internal, "keyviewctl"},
        {"none", failure::not_found, failure::internal, "keyviewctl"},
    };
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.name);
        std::string place = "lmdb:" + scratch.path + "/" + row.name;
        std::string text;
        EXPECT_EQ(failure_of([&] { open_backend(place, open_mode::existing); }, &text),
                  row.existing);
        EXPECT_NE(text.find(row.told), text.npos) << text;
        EXPECT_NE(text.find(scratch.path), text.npos) << text;
        if (row.create == failure::internal) {
            EXPECT_NO_THROW(open_backend(place, open_mode::create));
        } else {
            EXPECT_EQ(failure_of([&] { open_backend(place, open_mode::create); }), row.create);
        }
    }
    EXPECT_FALSE(fs::exists(scratch.path + "/empty/../none/deeper"));
}

TEST_F(Embedded, IsPrivateWhateverTheUmask) {
    for (mode_t mask : {0U, 022U, 0777U}) {
        std::string place = scratch.path + "/u" + std::to_string(mask);
        mode_t before = umask(mask);
        open_backend("lmdb:" + place, open_mode::create);
        umask(before);
        struct stat found = {};
        ASSERT_EQ(stat(place.c_str(), &found), 0);
        EXPECT_EQ(found.st_mode & 07777, 0700U);
        for (const char *name : {"/data.mdb", "/lock.mdb", "/locks"}) {
            ASSERT_EQ(stat((place + name).c_str(), &found), 0) << name;
            EXPECT_EQ(found.st_mode & 07777, 0600U) << name;
        }
    }
}

TEST_F(Embedded, OpensFilesOnceAndNotForOtherPrograms) {
    auto descriptors = [&] {
        int open_files = 0;
        DIR *listing = opendir("/proc/self/fd");
        while (dirent *entry = readdir(listing)) {
            std::error_code ignored;
            std::string target =
                fs::read_symlink(std::string("/proc/self/fd/") + entry->d_name, ignored).string();
            if (target.find(scratch.path) != 0) continue;
            ++open_files;
            EXPECT_TRUE(fcntl(std::stoi(entry->d_name), F_GETFD) & FD_CLOEXEC) << target;
        }
        closedir(listing);
        return open_files;
    };
    registry.locks->acquire("LKRT.x", lock_mode::shared, 0);
    int before = descriptors();
    EXPECT_GE(before, 4) << "the directory, data, LMDB's locks, ours";
    backend again = open_backend(url + "/", open_mode::existing);
    client third;
    again.locks->acquire("LKRT.x", lock_mode::shared, 0);
    EXPECT_EQ(again.keys, registry.keys);
    EXPECT_EQ(again.locks, registry.locks);
    EXPECT_EQ(descriptors(), before);
    again = {};
    close();
    EXPECT_EQ(kvtc_terminate(third.reg), 0);
    EXPECT_EQ(descriptors(), 0);
}

// ---- Damage -------------------------------------------------------------------------------------

// A raw look at the file, while the registry is closed.
class raw_file {
  public:
    explicit raw_file(const std::string &directory) {
        mdb_env_create(&env);
        EXPECT_EQ(mdb_env_open(env, directory.c_str(), 0, 0600), 0);
        EXPECT_EQ(mdb_txn_begin(env, nullptr, 0, &txn), 0);
        EXPECT_EQ(mdb_dbi_open(txn, nullptr, 0, &dbi), 0);
    }
    ~raw_file() {
        EXPECT_EQ(mdb_txn_commit(txn), 0);
        mdb_env_close(env);
    }
    std::string get(std::string place) {
        MDB_val key = {place.size(), place.data()};
        MDB_val data = {};
        EXPECT_EQ(mdb_get(txn, dbi, &key, &data), 0);
        return std::string(static_cast<char *>(data.mv_data), data.mv_size);
    }
    void put(std::string place, std::string bytes) {
        MDB_val key = {place.size(), place.data()};
        MDB_val data = {bytes.size(), bytes.data()};
        EXPECT_EQ(mdb_put(txn, dbi, &key, &data, 0), 0);
    }

    MDB_env *env = nullptr;
    MDB_txn *txn = nullptr;
    MDB_dbi dbi = 0;
};

TEST_F(Embedded, NeverServesARowThatWasChanged) {
    apply({put("a.b", "value"), put("a.c", "other")});
    std::string b("a\0b", 3);
    std::string c("a\0c", 3);
    close();
    std::string good = raw_file(scratch.path + "/registry").get(b);
    std::vector<std::string> bad = {"", good.substr(0, 8), good.substr(0, good.size() - 1),
                                    good + "x", raw_file(scratch.path + "/registry").get(c)};
    for (size_t bit = 0; bit < good.size() * 8; bit += 3) {
        bad.push_back(good);
        bad.back()[bit / 8] ^= static_cast<char>(1 << bit % 8);
    }
    auto ignore = [](std::string_view, std::string_view) {};
    for (const std::string &bytes : bad) {
        raw_file(scratch.path + "/registry").put(b, bytes);
        open();
        std::string text;
        EXPECT_EQ(failure_of([&] { stored("a.b"); }, &text), failure::content);
        EXPECT_NE(text.find("a.b"), text.npos) << text;
        EXPECT_EQ(failure_of([&] { registry.keys->read_subtree("a", ignore); }), failure::content);
        EXPECT_EQ(failure_of([&] {
                      registry.keys->read_children(
                          "a", [](uint32_t) {}, ignore);
                  }),
                  failure::content);
        EXPECT_EQ(failure_of([&] { registry.keys->set("a.b", "x", nullptr); }), failure::content);
        EXPECT_EQ(client().read("a.b"), "(1)");
        EXPECT_EQ(stored("a.c"), "other");
        close();
    }
    open();
    EXPECT_EQ(apply({removal("a.b")}).removed, 1U) << "a damaged key can be taken away";
    apply({put("a.b", "back")});
    EXPECT_EQ(stored("a.b"), "back");
}

TEST_F(Embedded, ACutPlaceHoldsItsPath) {
    std::string first = "a." + std::string(600, 'k');
    std::string second = first + "x";
    apply({put(first, "1"), put(second, "2")});
    close();
    auto cut_places = [&] {
        std::vector<std::string> places;
        raw_file raw(scratch.path + "/registry");
        MDB_cursor *cursor = nullptr;
        mdb_cursor_open(raw.txn, raw.dbi, &cursor);
        MDB_val key = {};
        MDB_val data = {};
        while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0) {
            if (key.mv_size == 511) places.emplace_back(static_cast<char *>(key.mv_data), 511);
        }
        mdb_cursor_close(cursor);
        return places;
    }();
    ASSERT_EQ(cut_places.size(), 2U);
    for (const std::string &place : cut_places)
        EXPECT_EQ(place.substr(0, 495), std::string("a\0", 2) + std::string(492, 'k') + '\x02');
}

// ---- Growth and full disks ----------------------------------------------------------------------

TEST_F(Embedded, GrowsByItselfAlsoUnderOthers) {
    apply({put("a.b", "small")});
    child_process reader([&](const meeting &parent) {
        client keys;
        if (keys.read("a.b") != "small" || !parent.tell() || !parent.wait()) return 1;
        std::string value;
        backend mine = open_backend(url, open_mode::existing);
        return mine.keys->read("a.z", &value) && value.size() == 1000000 ? 0 : 2;
    });
    ASSERT_TRUE(reader.here.wait());
    std::atomic<bool> stop{false};
    std::thread beside([&] {
        while (!stop)
            EXPECT_EQ(stored("a.b"), "small");
    });
    std::vector<change> changes;
    for (char c = 'k'; c <= 'z'; ++c)
        changes.push_back(put(std::string("a.") + c, std::string(1000000, c)));
    EXPECT_EQ(apply(changes).created, 16U);
    stop = true;
    beside.join();
    EXPECT_TRUE(reader.here.tell());
    EXPECT_EQ(reader.status(), 0);
    EXPECT_EQ(stored("a.k"), std::string(1000000, 'k'));
}

TEST_F(Embedded, AFullDiskLeavesTheOldState) {
    apply({put("a.b", "old")});
    child_process writer([&](const meeting &) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit = {400000, 400000};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::string text;
        for (int i = 0; i < 2; ++i) {
            failure kind = failure_of(
                [&] {
                    apply({put("a.b", "new"), put("a.c", std::string(900000, 'v'))});
                },
                &text);
            if (kind != failure::registry || text.find("disk may be full") == text.npos) return 1;
        }
        if (stored("a.b") != "old" || stored("a.c") != "(none)") return 2;
        return apply({put("a.b", "fits")}).replaced == 1 && stored("a.b") == "fits" ? 0 : 3;
    });
    EXPECT_EQ(writer.status(), 0);
    EXPECT_EQ(stored("a.b"), "fits");
}

// ---- Death --------------------------------------------------------------------------------------

// A program that is killed with every slot for readers taken does not lock the others out.
TEST_F(Embedded, TakesBackTheSlotsOfDeadReaders) {
    apply({put("a.b", "value")});
    close();
    child_process greedy([&](const meeting &parent) {
        open_backend(url,
                     open_mode::existing);  // as a first user would: with the kit's number of slots
        MDB_env *env = nullptr;
        mdb_env_create(&env);
        mdb_env_open(env, (scratch.path + "/registry").c_str(), MDB_NOTLS, 0600);
        MDB_txn *txn = nullptr;
        int rc = 0;
        while (rc == 0)
            rc = mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
        return rc != MDB_READERS_FULL || !parent.tell() || !parent.wait();
    });
    ASSERT_TRUE(greedy.here.wait());
    std::string text;
    EXPECT_EQ(failure_of([&] { open(); }, &text), failure::registry);
    EXPECT_NE(text.find("too many programs read"), text.npos) << text;
    greedy.kill_it();
    open();
    EXPECT_EQ(stored("a.b"), "value");
}

TEST_F(Embedded, KilledWritersLeaveAWholeTree) {
    apply({put("a.x", "0"), put("a.y", "0")});
    for (int round = 0; round < 8; ++round) {
        child_process writer([&](const meeting &parent) {
            for (int i = 0;; ++i) {
                std::string value(static_cast<size_t>(i % 50 * 400), 'v');
                apply({put("a.x", value), put("a.y", value), put("a.z" + std::to_string(i % 9))});
                if (i == round * 3) parent.tell();
            }
            return 0;
        });
        ASSERT_TRUE(writer.here.wait());
        usleep(static_cast<useconds_t>(round * 150));
        writer.kill_it();
        EXPECT_EQ(stored("a.x"), stored("a.y"));
        EXPECT_EQ(apply({put("a.w", std::to_string(round))}).created, round == 0 ? 1U : 0U);
    }
}

}  // namespace keyview::test
