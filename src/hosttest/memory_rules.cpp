// Memory, tags and trace.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <thread>
#include <vector>

#include "hosttest/host.h"
#include "hosttest/rules.h"

namespace keyview::hosttest {

static constexpr size_t SIZES[] = {1, 24, 65, 224, 1024, 2048, 2049, 4096, 4097, 65536, 1 << 20};

static char *block_of(size_t size) {
    auto *block = static_cast<char *>(host.tmem_allocm(host.pgcinit(0), size));
    require(block != nullptr, "tmem_allocm(" + std::to_string(size) + ") returns null");
    return block;
}

static void give_back(void *block) {
    host.tmem_freem(host.pgcinit(0), block);
}

static void require_all(const char *block, size_t size, char byte, const char *what) {
    const char *found = std::find_if(block, block + size, [=](char c) { return c != byte; });
    require(found == block + size, "byte " + std::to_string(found - block) + " of a block of " +
                                       std::to_string(size) + " bytes " + what);
}

static void blocks_are_zeroed() {
    for (size_t size : SIZES) {
        for (int again = 0; again < 3; ++again) {
            char *block = block_of(size);
            require_all(block, size, 0,
                        again == 0 ? "is not zero" : "is not zero when it is used again");
            memset(block, 0x5a, size);
            give_back(block);
        }
    }
}

static void blocks_are_apart() {
    std::vector<char *> blocks;
    for (size_t n = 0; n < 100; ++n) {
        size_t size = SIZES[n % std::size(SIZES)];
        blocks.push_back(block_of(size));
        memset(blocks.back(), static_cast<int>(n), size);
        require(reinterpret_cast<uintptr_t>(blocks.back()) % alignof(std::max_align_t) == 0 ||
                    size < 16,
                "a block of " + std::to_string(size) + " bytes is not aligned");
    }
    for (size_t n = 0; n < 100; ++n) {
        size_t size = SIZES[n % std::size(SIZES)];
        require_all(blocks[n], size, static_cast<char>(n), "was changed by another block");
        give_back(blocks[n]);
    }
}

static void empty_block() {
    give_back(block_of(0));
}

static void null_block() {
    give_back(nullptr);
}

// A block may come back on another thread than the one that took it.
static void blocks_of_threads() {
    auto use_blocks = [] {
        std::vector<char *> blocks;
        for (int n = 0; n < 2000; ++n) {
            blocks.push_back(block_of(SIZES[n % 8]));
            require_all(blocks.back(), SIZES[n % 8], 0, "is not zero beside other threads");
            memset(blocks.back(), n, SIZES[n % 8]);
            if (n % 3 != 0) continue;
            give_back(blocks.back());
            blocks.pop_back();
        }
        return blocks;
    };
    std::vector<char *> taken[4];
    std::thread threads[std::size(taken)];
    for (size_t n = 0; n < std::size(taken); ++n)
        threads[n] = std::thread([&, n] { taken[n] = use_blocks(); });
    for (std::thread &one : threads)
        one.join();
    for (auto &mine : taken)
        for (char *block : mine)
            give_back(block);
}

static void tags() {
    char bytes[16];
    memset(bytes, 0x5a, sizeof bytes);
    host.tmem_fill_tag(bytes, "PRSRTEST");
    require_all(bytes + 12, 4, 0x5a, "behind the 12 of a tag is written");
    require(host.tmem_check_tag(bytes, "PRSRTEST") != 0, "tmem_check_tag does not find the tag");
    require(host.tmem_check_tag(bytes, "PRSRTESU") == 0, "tmem_check_tag takes another tag for it");
    ++bytes[0];
    require(host.tmem_check_tag(bytes, "PRSRTEST") == 0, "tmem_check_tag finds a damaged tag");
}

// ---- Trace --------------------------------------------------------------------------------------

static void *component() {
    return host.trcdcompreg("PRSR component", "PRSR", 1024, 0, 0, 0, 0);
}

static constexpr int32_t UNSEEN = 99;  // no sink shows it, whatever it does with lower levels

static void trace_without_handle() {
    for (int32_t level : {TRCD_FAILURE + 0, TRCD_REGISTRATION + 0, TRCD_PROGRESS + 0, UNSEEN}) {
        host.trcdprintf(nullptr, level, "keyview-hosttest: a line of level %d", level);
        host.trcdprintft(nullptr, level, "keyview-hosttest: a line of level %d", level);
    }
}

static void long_trace_line() {
    const std::string text(100000, 'x');
    host.trcdprintf(component(), UNSEEN, "%s", text.c_str());
    host.trcdprintf(component(), TRCD_PROGRESS, "keyview-hosttest: %s", text.c_str());
}

std::vector<rule> memory_rules() {
    return {
        {"block-zeroed", "tmem_allocm returns blocks with every byte zero, also those used before",
         blocks_are_zeroed},
        {"block-apart", "a block has the requested size, aligned, and shares no byte with another",
         blocks_are_apart},
        {"block-empty", "tmem_allocm returns a block for a size of 0", empty_block},
        {"block-null", "tmem_freem ignores a null block", null_block},
        {"block-threads", "threads use memory at once, and one frees the blocks of another",
         blocks_of_threads},
        {"tag", "tmem_fill_tag writes at most 12 bytes, and tmem_check_tag finds that tag only",
         tags},
        {"trace-null", "trcdprintf and trcdprintft accept a null handle", trace_without_handle},
        {"trace-long", "trcdprintf accepts a line of any length", long_trace_line},
    };
}

}  // namespace keyview::hosttest
