// The head of the lock file in memory.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include "host/embedded/shared_words.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "host/support/fd.h"

namespace keyview::host {

static constexpr int ELEMENTS_OF_A_PART = 3;

shared_words::~shared_words() {
    if (words_ != nullptr) munmap(words_, sizeof(layout));
}

shared_words::layout *shared_words::map() {
    unique_fd fd(
        openat(directory_->fd(), registry_directory::LOCK_FILE, O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    struct stat found = {};
    constexpr auto SIZE = static_cast<off_t>(sizeof(layout));
    if (!fd.valid() || fstat(fd.get(), &found) != 0) throw directory_->lock_file_failed("mapped");
    if (found.st_size < SIZE && ftruncate(fd.get(), SIZE) != 0)
        throw directory_->lock_file_failed("mapped");
    void *mapped = mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) throw directory_->lock_file_failed("mapped");
    auto *words = static_cast<layout *>(mapped);
    layout *known = nullptr;
    if (words_.compare_exchange_strong(known, words)) return words;
    munmap(mapped, SIZE);  // another thread was faster
    return known;
}

shared_words::change_count *shared_words::count_of(std::string_view path) {
    size_t end = 0;
    for (int element = 1; element < ELEMENTS_OF_A_PART; ++element) {
        end = path.find('.', end);
        if (end == path.npos) return nullptr;
        ++end;
    }
    std::string_view part = path.substr(0, path.find('.', end));
    return &words()->counts[XXH3_64bits(part.data(), part.size()) % COUNTS];
}

void change_notice::add(std::string_view path) {
    shared_words::change_count *count = words_->count_of(path);
    if (count != nullptr) return add(count);
    for (shared_words::change_count &any : *words_)
        add(&any);
}

// It is odd already if a writer was killed.
void change_notice::add(shared_words::change_count *count) {
    if (counts_.insert(count).second) count->store(count->load() | 1);
}

change_notice::~change_notice() {
    for (shared_words::change_count *count : counts_)
        count->store(count->load() + 1);
}

}  // namespace keyview::host
