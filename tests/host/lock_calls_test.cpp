// What the locks of one machine ask of the system: its calls counted, failing on purpose, and seen by those
// who wait; and the words at the head of their file.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/embedded/lock_offsets.h"
#include "process.h"
#include "registry.h"

namespace {

// Of the calls of this thread for locks of files.
struct lock_calls {
    int made = 0;
    int failing = 0;  // the number of the call that fails, and of all behind it; 0 for none
    bool once = false;
    int error = 0;
    int failed = 0;  // the command of the first one that failed
};

thread_local lock_calls file_lock_calls;

}  // namespace

// In place of libc's, for the kit that is linked into this program.
extern "C" int fcntl(int fd, int command, ...) {
    static const auto libc_fcntl =
        reinterpret_cast<int (*)(int, int, ...)>(dlsym(RTLD_NEXT, "fcntl"));
    va_list words;
    va_start(words, command);
    void *word = va_arg(words, void *);
    va_end(words);
    if (command == F_OFD_SETLK || command == F_OFD_GETLK) {
        ++file_lock_calls.made;
        const bool fails = file_lock_calls.failing > 0 &&
                           (file_lock_calls.once ? file_lock_calls.made == file_lock_calls.failing
                                                 : file_lock_calls.made >= file_lock_calls.failing);
        if (fails) {
            if (file_lock_calls.failed == 0) file_lock_calls.failed = command;
            errno = file_lock_calls.error;
            return -1;
        }
    }
    return libc_fcntl(fd, command, word);
}

namespace keyview::test {

static constexpr const char *DATABASE_LOCK = "LKRT.DATABASE.DATABASES.sales";

class LockCalls : public RegistryTest {
  protected:
    using lock = std::shared_ptr<held_lock>;

    lock take(lock_mode mode, const std::string &name = DATABASE_LOCK) {
        return registry.locks->acquire(name, mode, 0);
    }
    lock take_all() { return registry.locks->acquire_all(0); }

    template <typename work>
    static int calls_of(work &&run) {
        file_lock_calls = {};
        run();
        return file_lock_calls.made;
    }

    // Whether no descriptor holds anything of the lock.
    bool is_free() {
        file_lock_calls = {};
        try {
            (void)take(lock_mode::exclusive);
            return true;
        } catch (const host_error &) {
            return false;
        }
    }

    // Of this process, by what /proc shows of each.
    int descriptors() const { return descriptors(directory + "/locks"); }
    static int descriptors(const std::string &shown) {
        int found = 0;
        for (const auto &one : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            found += std::filesystem::read_symlink(one, gone) == shown;
        }
        return found;
    }
};

// Whoever waits looks now and then, also once somebody closed the file, which wakes it.
TEST_F(LockCalls, AWaiterSleeps) {
    const lock held = take(lock_mode::exclusive);
    std::thread other([&] {
        for (int i = 0; i < 3; ++i) {
            usleep(20000);
            ::close(::open((directory + "/locks").c_str(), O_RDWR | O_CLOEXEC));
        }
    });
    const int made = calls_of([&] {
        EXPECT_THROW(registry.locks->acquire(DATABASE_LOCK, lock_mode::shared, 200), host_error);
    });
    EXPECT_LT(made, 2000);
    EXPECT_GT(made, 20);
    other.join();
}

// The words that all processes share, whatever their release is.
TEST_F(LockCalls, TheWordsHaveTheirPlaces) {
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    auto *const first = reinterpret_cast<const char *>(words.hint_of(0));
    auto place = [&](const auto *word) { return reinterpret_cast<const char *>(word) - first; };
    EXPECT_EQ(place(words.hint_of(1024 + 7)), 7 * 4);
    EXPECT_EQ(place(words.begin()), 4096);
    EXPECT_EQ(place(words.end()), 8192);
    EXPECT_EQ(place(words.waits_of(1024 + 7)), 8192 + 7 * 4);
    EXPECT_EQ(place(words.holder_of(1024 + 7)), 12288 + 7 * 8);
    EXPECT_EQ(std::filesystem::file_size(directory + "/locks"), 20480U);
}

// A reader uses its copies again if it finds the same even count of the part before and after.
TEST_F(LockCalls, AChangeIsCountedFromItsBeginToItsEnd) {
    static constexpr const char *ROOT = "DATABASE.DATABASES";
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    const std::string part = ROOT + std::string(".sales"), key = part + ".A.B";
    shared_words::change_count *const count = words.count_of(part);
    shared_words::change_count *const other = words.count_of(part + "2");
    EXPECT_EQ(words.count_of(key), count);
    EXPECT_NE(other, count);
    for (const char *above : {"", "DATABASE", ROOT})
        EXPECT_EQ(words.count_of(above), nullptr) << above;
    for (uint64_t left : {0U, 1U, 6U, 7U}) {  // odd by a writer that was killed
        count->store(left);
        other->store(4);
        {
            change_notice notice(&words);
            for (const std::string &changed : {key, part, key}) {
                notice.add(changed);
                EXPECT_EQ(count->load(), left | 1);
            }
            EXPECT_EQ(other->load(), 4U);
        }
        EXPECT_EQ(count->load(), (left | 1) + 1);
        EXPECT_EQ(other->load(), 4U);
    }
    auto odd = [&] {
        return std::count_if(words.begin(), words.end(),
                             [](const auto &one) { return one % 2 == 1; });
    };
    {
        change_notice of_all(&words);
        of_all.add(ROOT);
        EXPECT_EQ(odd(), 512);
    }
    EXPECT_EQ(odd(), 0);
}

// A free lock needs no more calls than these; the promise of a fast lock rests on them.
TEST_F(LockCalls, AFreeLockTakesFew) {
    { const lock first = take(lock_mode::exclusive); }
    const struct {
        const char *label;
        lock_mode mode;
        int of_grant;
    } ROWS[] = {
        {"a reader behind a writer looks once whether one waits", lock_mode::shared, 2},
        {"a reader", lock_mode::shared, 1},
        {"a writer: who waits with a turn, the gate, the lock", lock_mode::exclusive, 3},
        {"a writer again", lock_mode::exclusive, 3},
    };
    const int open = descriptors();
    for (const auto &row : ROWS) {
        lock held;
        EXPECT_EQ(calls_of([&] { held = take(row.mode); }), row.of_grant) << row.label;
        EXPECT_EQ(calls_of([&] { held.reset(); }), 1) << row.label;
        EXPECT_EQ(descriptors(), open) << row.label;
    }
}

TEST_F(LockCalls, SixteenDescriptorsAreKeptForLater) {
    {
        std::vector<lock> held;
        for (int i = 0; i < 40; ++i)
            held.push_back(take(lock_mode::shared, "a" + std::to_string(i)));
        EXPECT_EQ(descriptors(), 40);
    }
    EXPECT_EQ(descriptors(), 16);
    auto is_mapped = [&] {
        std::ifstream maps("/proc/self/maps");
        const std::string all(std::istreambuf_iterator<char>(maps), {});
        return all.find(directory + "/locks") != all.npos;
    };
    EXPECT_TRUE(is_mapped());
    close();
    EXPECT_FALSE(is_mapped());
    EXPECT_EQ(descriptors(), 0) << "a registry that is closed leaves none";
}

// From each call on, in each way: the lock is not granted, in words that tell why, and nothing of it is left.
TEST_F(LockCalls, AFailingOneLeavesNothing) {
    enum class what { reader, writer, all };
    struct outcome {
        int error;
        bool once;
        bool granted;
        failure of_try;  // a failed look is always one of the lock file
        const char *text_of_try;
    };
    const outcome ROWS[] = {
        {ENOLCK, false, false, failure::registry, "the lock file failed"},
        {EAGAIN, false, false, failure::lock, "not granted within 0 ms"},
        {EACCES, false, false, failure::lock, "not granted within 0 ms"},
        {EINTR, true, true, failure::internal, ""},
    };
    for (what one : {what::reader, what::writer, what::all}) {
        for (const outcome &row : ROWS) {
            bool reached = true;
            for (int number = 1; reached; ++number) {
                SCOPED_TRACE(testing::Message()
                             << int(one) << " call " << number << " " << row.error);
                { const lock sets_the_hint = take(lock_mode::exclusive); }
                file_lock_calls = {0, number, row.once, row.error, 0};
                try {
                    const lock held =
                        one == what::all
                            ? take_all()
                            : take(one == what::reader ? lock_mode::shared : lock_mode::exclusive);
                    reached = file_lock_calls.failed != 0;
                    EXPECT_TRUE(!reached || (row.granted && file_lock_calls.failed == F_OFD_SETLK));
                } catch (const host_error &error) {
                    const bool tried = file_lock_calls.failed == F_OFD_SETLK;
                    const std::string text = error.what();
                    EXPECT_FALSE(tried && row.granted) << text;
                    EXPECT_EQ(error.kind, tried ? row.of_try : failure::registry) << text;
                    EXPECT_NE(text.find(tried ? row.text_of_try : "the lock file failed"),
                              text.npos)
                        << text;
                }
                ASSERT_TRUE(is_free());
            }
        }
    }
}

// A descriptor whose lock could not be released is closed, which releases it: it never comes back with a lock.
TEST_F(LockCalls, AFailedReleaseReleases) {
    for (bool all : {false, true}) {
        lock held = all ? take_all() : take(lock_mode::exclusive);
        file_lock_calls = {0, 1, true, EIO, 0};
        held.reset();
        EXPECT_EQ(file_lock_calls.failed, F_OFD_SETLK);
        EXPECT_TRUE(is_free()) << all;
    }
}

// Another process holds one range: who has to stand back, whatever the hints tell.
TEST_F(LockCalls, EachRangeStopsWhomItIsFor) {
    { const lock makes_the_file = take(lock_mode::exclusive); }
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    const lock_offsets own = offsets_of(DATABASE_LOCK, &words);
    const lock_offsets other = offsets_of(DATABASE_LOCK + std::string("2"), &words);
    const lock_offsets whole = offsets_at(WHOLE_BYTE, &words);
    const struct {
        const char *label;
        off_t at;
        bool reader, writer, all;
    } ROWS[] = {
        {"nothing", WHOLE_BYTE + 100, true, true, true},
        {"the lock", own.byte, false, false, false},
        {"the gate: a writer waits", own.gate, false, false, false},
        {"the turn: a writer waits for the gate", own.turn(), true, false, false},
        {"another lock", other.byte, true, true, false},
        {"the gate of another one", other.gate, true, true, false},
        {"all locks", whole.byte, true, true, false},
        {"the gate of all: one waits for them", whole.gate, true, false, false},
        {"the turn of all", whole.turn(), true, true, false},
    };
    const int fd = ::open((directory + "/locks").c_str(), O_RDWR | O_CLOEXEC);
    auto granted = [](auto &&lock_taken) {
        try {
            return lock_taken() != nullptr;
        } catch (const host_error &error) {
            EXPECT_EQ(error.kind, failure::lock) << error.what();
            return false;
        }
    };
    for (const auto &row : ROWS) {
        SCOPED_TRACE(row.label);
        for (const lock_offsets &one : {own, whole})
            one.hint->store(1);
        struct flock range = range_at(row.at, 1, F_WRLCK);
        ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &range), 0);
        EXPECT_EQ(granted([&] { return take(lock_mode::shared); }), row.reader);
        EXPECT_EQ(granted([&] { return take(lock_mode::exclusive); }), row.writer);
        EXPECT_EQ(granted([&] { return take_all(); }), row.all);
        range.l_type = F_UNLCK;
        ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &range), 0);
        EXPECT_TRUE(is_free());
    }

    // A writer that waited for the gate with the turn gives the turn back when it has the gate.
    struct flock gate = range_at(own.gate, 1, F_WRLCK);
    ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &gate), 0);
    auto holds_turn = [&] {
        struct flock asked = range_at(own.turn(), 1, F_WRLCK);
        return fcntl(fd, F_OFD_GETLK, &asked) == 0 && asked.l_type != F_UNLCK;
    };
    std::thread writer([&] {
        const lock held = registry.locks->acquire(DATABASE_LOCK, lock_mode::exclusive, DEADLINE_MS);
        EXPECT_FALSE(holds_turn());
    });
    for (int look = 0; !holds_turn() && look < DEADLINE_MS; ++look)
        usleep(1000);
    EXPECT_TRUE(holds_turn());
    EXPECT_EQ(descriptors("anon_inode:inotify"), 1) << "it watches the file";
    gate.l_type = F_UNLCK;
    ASSERT_EQ(fcntl(fd, F_OFD_SETLK, &gate), 0);
    writer.join();
    ::close(fd);
    close();
    EXPECT_EQ(descriptors("anon_inode:inotify"), 0);
}

// To close a descriptor of the file wakes those who wait. Where nobody does, nothing is closed.
TEST_F(LockCalls, AReleaseWakesThoseWhoWait) {
    { const lock makes_the_file = take(lock_mode::exclusive); }
    shared_words words(std::make_shared<registry_directory>(directory, open_mode::existing));
    const shared_words::hint *waits = offsets_of(DATABASE_LOCK, &words).waits;
    const int watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    ASSERT_GE(inotify_add_watch(watch, (directory + "/locks").c_str(), IN_CLOSE_WRITE), 0);
    auto wakes = [&] {
        char events[4096];
        return read(watch, events, sizeof(events)) > 0;
    };
    for (lock_mode mode : {lock_mode::shared, lock_mode::exclusive}) {
        lock held = take(mode);
        held.reset();
        EXPECT_FALSE(wakes()) << "nobody waits";
        held = take(mode);
        std::thread waiter([&] {
            (void)registry.locks->acquire(DATABASE_LOCK, lock_mode::exclusive, DEADLINE_MS);
        });
        for (int look = 0; waits->load() == 0 && look < DEADLINE_MS; ++look)
            usleep(1000);
        (void)wakes();
        held.reset();
        EXPECT_TRUE(wakes()) << "one waits";
        waiter.join();
        (void)wakes();
        { const lock later = take(mode); }
        EXPECT_FALSE(wakes()) << "nobody waits any more";
    }
    lock all = take_all();
    (void)wakes();
    all.reset();
    EXPECT_TRUE(wakes()) << "any lock may have one who waits";
}

}  // namespace keyview::test
