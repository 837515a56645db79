// Kills readers in the middle of their reading while a writer goes on: what they kept of the file
// must be taken back, or the file would grow without end.
//
// Usage: readers [COUNT]; it prints the sizes of the file.
#include <sys/mman.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "process.h"
#include "registry.h"

namespace keyview::test {

static constexpr const char *LOCK = "LKRT.DATABASE.DATABASES.sales";
static const std::string DEEP = "DATABASE.DATABASES.sales.INSTANCE.sales1.NODE";
static const std::string OTHER = "DATABASE.DATABASES.other.V";
static constexpr size_t VALUES = 32;

static constexpr int READERS_AT_ONCE = 20;
static constexpr uint64_t COMMITS_A_READER = 5;
static constexpr uint64_t COMMITS_AFTER = 800;  // far more than fit into what the file has

static void require(bool holds, const char *what) {
    if (!holds) throw std::runtime_error(what);
}

// The writer makes as many commits as it may: how many go by while somebody reads is the same on a
// slow machine.
struct commit_counts {
    std::atomic<uint64_t> made{0};
    std::atomic<uint64_t> allowed{0};
};

// Values whose sizes go up and down, so that pages come and go.
static int write_as_allowed(commit_counts *commits) {
    client keys;
    for (size_t n = 0;; ++n) {
        while (commits->made == commits->allowed)
            usleep(50);
        std::string value((n * 7919) % 60000, static_cast<char>('a' + n % 26));
        require(keys.set(OTHER + std::to_string(n * 5 % VALUES), value) == 0,
                keyview_host_last_error());
        ++commits->made;
    }
}

class dying_readers {
  public:
    dying_readers() {
        require(keyview_host_set_registry(url_.c_str()) == 0, "no registry");
        std::vector<change> changes = {put(DEEP, "node1")};
        for (size_t i = 0; i < VALUES; ++i)
            changes.push_back(put(OTHER + std::to_string(i), std::string(30000, 'v')));
        open_backend(url_, open_mode::create).keys->apply(changes);
        writer_ = std::make_unique<child_process>(
            [this](const meeting &) { return write_as_allowed(commits_); });
    }

    ~dying_readers() {
        writer_.reset();
        (void)munmap(commits_, sizeof(*commits_));
    }

    // The file first gets the size that it needs for as many readers who end as they should.
    void run(int count) {
        read_at_once(READERS_AT_ONCE, false);
        uintmax_t before = size();
        for (int left = count; left > 0; left -= READERS_AT_ONCE)
            read_at_once(std::min(left, READERS_AT_ONCE), true);
        uintmax_t after = size();
        (void)printf("%d killed readers, %ju commits: the file had %ju bytes and has %ju\n", count,
                     static_cast<uintmax_t>(commits_->made.load()), before, after);
        require(after <= 2 * before, "the file grew");
        require(locker().exclusive(LOCK) == 0, "a killed reader's lock is still held");
    }

  private:
    // Each reader has its moment at another commit. Nobody opens the registry between their end and
    // the last commit: whoever opens it takes back what the dead kept.
    void read_at_once(int count, bool killed) {
        std::vector<std::unique_ptr<child_process>> readers;
        for (int i = 0; i < count; ++i) {
            readers.push_back(std::make_unique<child_process>(hold_a_moment));
            require(readers.back()->here.wait(), "a reader did not begin");
            wait_for_commits(COMMITS_A_READER);
        }
        for (auto &reader : readers) {
            if (!killed) require(reader->here.tell() && reader->status() == 0, "a reader failed");
            if (killed) reader->kill_it();
        }
        wait_for_commits(COMMITS_AFTER);
    }

    static int hold_a_moment(const meeting &parent) {
        client keys;
        locker locks;
        if (locks.shared(LOCK) != 0 || keys.read(DEEP) != "node1") return 1;
        if (!parent.tell()) return 2;
        char byte = 0;
        return read(parent.fd, &byte, 1) == 1 ? 0 : 3;  // as long as it takes
    }

    void wait_for_commits(uint64_t more) {
        commits_->allowed += more;
        for (uint64_t seen = 0; seen < commits_->allowed;) {
            for (int waited_ms = 0; commits_->made == seen; ++waited_ms, usleep(1000))
                require(waited_ms < DEADLINE_MS, "the writer stands still");
            seen = commits_->made;
        }
    }

    uintmax_t size() const {
        return std::filesystem::file_size(scratch_.path + "/registry/data.mdb");
    }

    scratch_directory scratch_;
    std::string url_ = "lmdb:" + scratch_.path + "/registry";
    commit_counts *commits_ = new (mmap(nullptr, sizeof(*commits_), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0)) commit_counts;
    std::unique_ptr<child_process> writer_;
};

}  // namespace keyview::test

int main(int argc, char **argv) {
    (void)setenv("TMPDIR", "/var/tmp", 0);
    try {
        keyview::test::dying_readers().run(argc > 1 ? atoi(argv[1]) : 40);
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "readers: %s\n", error.what());
        return 1;
    }
    return 0;
}
