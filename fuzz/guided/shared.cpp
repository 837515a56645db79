// A lock file whose head, which all processes share, has any words: a lock that nobody holds is
// granted, one that is held is refused, and a change moves the count of its part.
#include "../../tests/host/scratch.h"
#include "host/embedded/file_locks.h"
#include "host/embedded/lock_offsets.h"
#include "host/entry/backends.h"
#include "host/support/error.h"
#include "target.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>

using namespace keyview::host;
using keyview::test::require;

namespace {

constexpr const char *NAME = "LKRT.DATABASE.DATABASES.sales",
                     *PATH = "DATABASE.DATABASES.sales.ROLE";

struct lock_file {
    lock_file() {
        (void)open_backend("lmdb:" + scratch.path + "/registry", open_mode::create);
        directory =
            std::make_shared<registry_directory>(scratch.path + "/registry", open_mode::existing);
        fd = openat(directory->fd(), registry_directory::LOCK_FILE, O_RDWR | O_CLOEXEC);
    }

    keyview::test::scratch_directory scratch;
    std::shared_ptr<const registry_directory> directory;
    int fd = -1;
};

// Eleven bytes of the input: which word, where it is if it is none of those that are used, its value.
constexpr size_t PATCH = 11;

void write_word(shared_words *words, const char *patch) {
    uint16_t at = 0;
    uint64_t value = 0;
    memcpy(&at, patch + 1, sizeof at);
    memcpy(&value, patch + 3, sizeof value);
    const lock_offsets one = offsets_of(NAME, words), all = offsets_at(WHOLE_BYTE, words);
    switch (static_cast<uint8_t>(*patch) % 8) {
        case 0:
            one.hint->store(static_cast<uint32_t>(value));
            break;
        case 1:
            one.waits->store(static_cast<uint32_t>(value));
            break;
        case 2:
            one.holder->store(value);
            break;
        case 3:
            all.hint->store(static_cast<uint32_t>(value));
            break;
        case 4:
            all.waits->store(static_cast<uint32_t>(value));
            break;
        case 5:
            all.holder->store(value);
            break;
        case 6:
            words->count_of(PATH)->store(value);
            break;
        default:
            words->holder_of(at)->store(value);
    }
}

// The text of a refusal; "" if the lock is granted.
std::string refusal_of(file_locks *locks, lock_mode mode) {
    try {
        (void)locks->acquire(NAME, mode, 0);
        return "";
    } catch (const host_error &error) {
        require(error.kind == failure::lock, error.what());
        return error.what();
    }
}

void use_as_reader(file_locks *locks) {
    const auto reader = locks->acquire(NAME, lock_mode::shared, 0);
    require(refusal_of(locks, lock_mode::shared).empty(), "a second reader is refused");
    require(!refusal_of(locks, lock_mode::exclusive).empty(), "a writer beside a reader");
}

void use_as_writer(file_locks *locks) {
    const auto writer = locks->acquire(NAME, lock_mode::exclusive, 0);
    require(!refusal_of(locks, lock_mode::shared).empty(), "a reader beside a writer");
}

void use_all(file_locks *locks) {
    const auto all = locks->acquire_all(0);
    require(!refusal_of(locks, lock_mode::exclusive).empty(), "a writer beside the owner of all");
}

}  // namespace

void keyview::test::one_input(std::string_view input) {
    static const lock_file file;
    // The file of an earlier release is shorter.
    require(ftruncate(file.fd, 0) == 0 && ftruncate(file.fd, input.size() % 2 == 0 ? 0 : 8192) == 0,
            "no memory");
    const auto locks = std::make_shared<file_locks>(file.directory);
    for (; input.size() >= PATCH; input.remove_prefix(PATCH))
        write_word(locks->words(), input.data());
    auto *count = locks->words()->count_of(PATH);
    const uint64_t before = count->load();
    planted_fault(offsets_of(NAME, locks->words()).hint->load() > UINT32_MAX / 2 &&
                  before % 2 == 1);
    {
        change_notice notice(locks->words());
        notice.add(PATH);
        require(count->load() % 2 == 1, "a change that nobody sees");
    }
    require(count->load() % 2 == 0 && count->load() != before, "a change that was not counted");
    // A refusal takes milliseconds: it reads who holds the lock.
    constexpr void (*USES[])(file_locks *) = {use_as_reader, use_as_writer, use_all};
    USES[input.size() % std::size(USES)](locks.get());
}
