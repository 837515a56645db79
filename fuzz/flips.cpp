// Damages the data file of a small registry, byte by byte and by cutting it short, and lets a
// process read everything each time, and in a copy replace everything. Whatever the damage: no reader
// gets another name or value, or the answer that a stored key is missing; no signal ends a reader or a
// writer; what a writer could replace reads as it was written; and the check reports all that a
// reader notices.
//
// Usage: flips [STEP [BITS [FROM [TO]]]]; every STEP-th byte (61; 1 for all) between two offsets of
// the file (all of it), each with all its bits inverted and with BITS single ones (1; 8 for all).
// It prints the counts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "admin/care/inspection.h"
#include "admin/document/document.h"
#include "host/embedded/pages/page_format.h"
#include "host/registry/snapshot.h"
#include "process.h"
#include "registry.h"

namespace keyview::test {

static size_t step = 61;
static unsigned single_bits = 1;
static size_t from_byte = 0;
static size_t to_byte = SIZE_MAX;

// What a reader saw, as bits of an exit status.
constexpr int REFUSED = 1;
constexpr int WRONG_KEY = 2;
constexpr int WRONG_LIST = 4;
constexpr int WRONG_SUBTREE = 8;
constexpr int WRONG_UNDER_LOCK = 16;
constexpr int WRONG_AFTER_WRITE = 32;
constexpr int WRONG = WRONG_KEY | WRONG_LIST | WRONG_SUBTREE | WRONG_UNDER_LOCK | WRONG_AFTER_WRITE;
constexpr int ENDED = -1;

using tree = std::map<std::string, std::string>;

// Adds a part of a registry to a tree; false if there is no such key.
static bool copy(store *keys, const std::string &top, reach which, tree *out) {
    snapshot part(top, which);
    bool there = keys->now()->copy(top, which, &part);
    for (uint32_t key = 0; key < part.size(); ++key)
        out->emplace(part.path(key), part.value(key));
    return there;
}

// All that a registry holds, read in every way. Each way that fails, or returns something else than
// before, leaves its bit.
class reading {
  public:
    explicit reading(const tree &expected) : expected_(expected) {}

    int run(const std::string &url) {
        backend registry;
        if (!attempt(0, [&] { registry = open_backend(url, open_mode::existing); })) return seen_;
        keys_ = registry.keys.get();
        for (const auto &[path, value] : expected_)
            read_key(path, value);
        for (const auto &[path, value] : expected_)
            read_list(path);
        for (const char *root : {"DATABASE", "z"})
            read_subtree(root);
        read_under_lock("DATABASE.DATABASES.sales");
        return seen_;
    }

  private:
    template <typename call>
    bool attempt(int wrong, call &&run) {
        try {
            if constexpr (std::is_same_v<decltype(run()), bool>) {
                if (!run()) seen_ |= wrong;
            } else {
                run();
            }
            return true;
        } catch (const host_error &) {
            seen_ |= REFUSED;
            return false;
        }
    }

    void read_key(const std::string &path, const std::string &value) {
        std::string found;
        attempt(WRONG_KEY,
                [&]() -> bool { return keys_->now()->read(path, &found) && found == value; });
    }

    void read_list(const std::string &path) {
        tree below;
        tree found;
        for (const auto &row : expected_) {
            size_t dot = row.first.rfind('.');
            if (dot == path.size() && row.first.compare(0, dot, path) == 0) below.insert(row);
        }
        attempt(WRONG_LIST, [&]() -> bool {
            bool there = copy(keys_, path, reach::children, &found);
            found.erase(path);
            return there && found == below;
        });
    }

    void read_subtree(const std::string &root) {
        tree all;
        tree found;
        for (const auto &row : expected_) {
            if (row.first == root || row.first.rfind(root + ".", 0) == 0) all.insert(row);
        }
        attempt(WRONG_SUBTREE, [&]() -> bool {
            return copy(keys_, root, reach::all_below, &found) && found == all;
        });
    }

    // As a caller of the client does. It has codes, of which one means a missing key.
    void read_under_lock(const std::string &top) {
        client keys;
        locker locks;
        bool held = locks.shared(("LKRT." + top).c_str()) == 0;
        for (const auto &[path, value] : expected_) {
            if (!held || path.rfind(top + ".", 0) != 0) continue;
            void *key = nullptr;
            int32_t rc = keys.open(path, &key);
            if (rc == KVTC_ERR_KEY_NOT_FOUND) seen_ |= WRONG_UNDER_LOCK;
            if (rc == 0 && keys.value_of(key) != value) seen_ |= WRONG_UNDER_LOCK;
            if (rc != 0) seen_ |= REFUSED;
        }
        if (!held) seen_ |= REFUSED;
    }

    const tree &expected_;
    store *keys_ = nullptr;
    int seen_ = 0;
};

class Flips : public testing::Test {
  protected:
    // Several commits, so that pages of older states lie about; long keys, and a long value.
    void SetUp() override {
        EXPECT_EQ(keyview_host_set_registry(url.c_str()), 0);
        // A part of the example, so that all of it fits into the first map.
        auto document = nlohmann::json::parse(std::ifstream(EXAMPLE_DOCUMENT));
        document.erase("stg");
        document.erase("nodeapps");
        for (int n : {3, 2, 0})
            document["databases"].erase(static_cast<size_t>(n));
        (void)admin::apply_document(document.dump(), {});
        child_process writer([&](const meeting &) {
            backend registry = open_backend(url, open_mode::existing);
            store *keys = registry.keys.get();
            std::string x(240, 'x');
            keys->apply({put("z." + x + "." + x + "y." + x + "1", "long"), put("z.s", "short"),
                         put("z." + x + "." + x + "y." + x + "2.e"),
                         put("z.v", std::string(4500, 'v')), put("z.t", "gone")});
            keys->apply({removal("z.t")});
            keys->set("DATABASE.DATABASES.sales.SPFILE", std::string("new", 4), nullptr);
            keys->set("DATABASE.DATABASES.sales.SPFILE", std::string("newer", 6), nullptr);
            return 0;
        });
        ASSERT_EQ(writer.status(), 0);
        fd = ::open((directory + "/data.mdb").c_str(), O_RDWR | O_CLOEXEC);
        std::stringstream bytes;
        bytes << std::ifstream(directory + "/data.mdb", std::ios::binary).rdbuf();
        sound = bytes.str();
        ASSERT_EQ(sound.size(), 64U << 10) << "the run should stay short";
        learn();
        const std::vector<damage> none = {{"", 0, 0x100}};
        ASSERT_EQ(in_processes(none, [&] { return read_all(); }).front(), 0);
        ASSERT_EQ(in_processes(none, [] { return check(); }).front(), 0);
    }
    void TearDown() override {
        ::close(fd);
        (void)keyview_host_set_registry(nullptr);
    }

    void learn() {
        backend registry = open_backend(url, open_mode::existing);
        for (const char *root : {"DATABASE", "z"})
            EXPECT_TRUE(copy(registry.keys.get(), root, reach::all_below, &expected));
    }

    struct damage {
        std::string text;
        size_t at;
        unsigned pattern;  // of the bits that are inverted; 0: the file ends there
    };

    static damage of_byte(size_t at, unsigned pattern) {
        return {"byte " + std::to_string(at) + " of page " + std::to_string(at / 4096) + " ^ " +
                    std::to_string(pattern),
                at, pattern};
    }
    static damage cut(size_t length) { return {"cut to " + std::to_string(length), length, 0}; }

    void inflict(const damage &one) const {
        const char bad = static_cast<char>(sound[one.at] ^ static_cast<char>(one.pattern));
        const auto at = static_cast<off_t>(one.at);
        if (one.pattern == 0 ? ftruncate(fd, at) != 0 : pwrite(fd, &bad, 1, at) != 1) abort();
    }
    void repair(const damage &one) const {
        const size_t from = one.pattern == 0 ? 0 : one.at,
                     to = one.pattern == 0 ? sound.size() : from + 1;
        const ssize_t done = pwrite(fd, &sound[from], to - from, static_cast<off_t>(from));
        if (done != static_cast<ssize_t>(to - from)) abort();
    }

    // The results of a body with each damage. It runs in processes of its own, one for many damages: one
    // that a damage ends, or that does not end, is followed by one for the next.
    template <typename work>
    std::vector<int> in_processes(const std::vector<damage> &all, work &&body) const {
        constexpr size_t AT_ONCE = 50;
        const size_t size = all.size() * sizeof(int);
        int *results = static_cast<int *>(
            mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        std::fill_n(results, all.size(), ENDED);
        for (size_t next = 0; next < all.size();) {
            const size_t end = std::min(next + AT_ONCE, all.size());
            const pid_t pid = fork();
            if (pid == 0) {
                for (; next < end; ++next) {
                    alarm(DEADLINE_MS / 1000);
                    inflict(all[next]);
                    results[next] = body();
                    repair(all[next]);
                }
                _exit(0);
            }
            int status = 0;
            const bool waited = waitpid(pid, &status, 0) == pid;
            if (waited && status == 0) {
                next = end;
                continue;
            }
            while (next + 1 < end && results[next] != ENDED)
                ++next;
            repair(all[next++]);
        }
        std::vector<int> out(results, results + all.size());
        munmap(results, size);
        return out;
    }

    int read_all() const { return reading(expected).run(url); }

    // Replaces every value by a longer one, in a copy with the damage.
    int replace_all() const {
        const std::string copied = scratch.path + "/copy";
        std::filesystem::remove_all(copied);
        std::filesystem::create_directory(copied);
        std::filesystem::copy_file(directory + "/data.mdb", copied + "/data.mdb");
        tree found;
        try {
            backend registry = open_backend("lmdb:" + copied, open_mode::existing);
            std::vector<change> replacements;
            for (const auto &[path, value] : expected)
                replacements.push_back(put(path, value + "x"));
            registry.keys->apply(replacements);
            for (const char *root : {"DATABASE", "z"})
                copy(registry.keys.get(), root, reach::all_below, &found);
        } catch (const host_error &) {
            return REFUSED;
        }
        bool same = found.size() == expected.size();
        for (const auto &[path, value] : expected)
            same = same && found[path] == value + "x";
        return same ? 0 : WRONG_AFTER_WRITE;
    }

    // 1 if there are findings.
    static int check() {
        try {
            return admin::check_registry().findings.empty() ? 0 : 1;
        } catch (const admin::error &) {
            return 2;
        }
    }

    void judge(const std::vector<damage> &all) {
        const std::vector<int> read = in_processes(all, [&] { return read_all(); });
        const std::vector<int> checked = in_processes(all, [] { return check(); });
        const std::vector<int> written = in_processes(all, [&] { return replace_all(); });
        for (size_t n = 0; n < all.size(); ++n)
            judge_one(all[n].text, read[n], checked[n], written[n]);
    }

    void judge_one(const std::string &text, int seen, int reported, int replaced) {
        ++counts[replaced == ENDED     ? "writers ended"
                 : replaced & WRONG    ? "WRONG writes"
                 : replaced == REFUSED ? "writers refused"
                                       : "replaced"];
        EXPECT_TRUE(replaced == 0 || replaced == REFUSED) << text << ", writing: " << replaced;
        ++counts[seen == ENDED ? "ended" : seen & WRONG ? "WRONG" : seen ? "refused" : "unchanged"];
        ++counts[reported == 1 ? "reported" : "not reported"];
        EXPECT_NE(seen, ENDED) << text;
        EXPECT_EQ(seen & WRONG, 0) << text;
        EXPECT_TRUE(reported == 1 || (reported == 0 && seen == 0)) << text << ": " << reported;
    }

    void print(const char *what) {
        std::cout << what << ":";
        for (const auto &[name, count] : counts)
            std::cout << " " << count << " " << name;
        std::cout << "\n";
    }

    scratch_directory scratch;
    std::string directory = scratch.path + "/registry";
    std::string url = "lmdb:" + directory;
    int fd = -1;
    std::string sound;
    tree expected;
    std::map<std::string, size_t> counts;
};

TEST_F(Flips, NoByteMakesAReaderBelieveSomethingElse) {
    std::mt19937 random(20240611);
    std::vector<damage> all;
    for (size_t at = from_byte; at < std::min(sound.size(), to_byte); at += step) {
        all.push_back(of_byte(at, 0xFF));
        unsigned first = static_cast<unsigned>(random() % 8);
        for (unsigned n = 0; n < single_bits; ++n)
            all.push_back(of_byte(at, 1U << (first + n) % 8));
    }
    judge(all);
    print("bytes");
}

// A change moves the nodes of a page by their sizes.
TEST_F(Flips, NoSizeOfANodeEndsAWriter) {
    constexpr size_t PAGE = 4096, EACH = 7;
    size_t nodes = 0;
    std::vector<damage> all;
    for (size_t page = 0; page < sound.size(); page += PAGE) {
        const page_head head = value_at<page_head>(sound, page);
        if (head.kind != LEAF_PAGE) continue;
        for (size_t at = sizeof(head); at < head.nodes.lower; at += sizeof(uint16_t)) {
            if (nodes++ % EACH == 0)
                all.push_back(
                    of_byte(page + value_at<uint16_t>(sound, page + at), 1U << nodes % 8));
        }
    }
    judge(all);
    print("sizes");
}

TEST_F(Flips, AFileThatIsCutShortIsRefused) {
    const size_t ODD[] = {1, 15, 16, 100, 151, 152, 4095, 4097, 4096 + 152, 8193};
    std::vector<size_t> lengths(std::begin(ODD), std::end(ODD));
    for (size_t length = 0; length < sound.size(); length += 4096)
        lengths.insert(lengths.end(), {length, length + 2048});
    std::vector<damage> all;
    for (size_t length : lengths)
        all.push_back(cut(length));
    judge(all);
    // One length keeps exactly the pages in use, as a copy by mdb_copy does: no key is missing.
    EXPECT_EQ(counts["refused"], lengths.size() - 1);
    EXPECT_EQ(counts["reported"], lengths.size() - 1);
    EXPECT_EQ(counts["unchanged"], 1U);
    print("lengths");
}

}  // namespace keyview::test

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    (void)setenv("KEYVIEW_HISTORY", "0", 0);  // it would double the file
    // LMDB's list of changed pages, 2 MiB of zeros, is mapped for each writer and hardly touched.
    // Once such a block was freed, malloc would keep the next in its heap, and clear it.
    (void)mallopt(M_MMAP_THRESHOLD, 1 << 20);
    auto number = [&](int n, size_t otherwise) {
        return argc > n ? strtoul(argv[n], nullptr, 10) : otherwise;
    };
    using namespace keyview::test;
    step = number(1, step);
    single_bits = static_cast<unsigned>(number(2, single_bits));
    from_byte = number(3, from_byte);
    to_byte = number(4, to_byte);
    return RUN_ALL_TESTS();
}
