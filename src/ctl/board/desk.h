// Where the reader of the registry and the screen meet.
#pragma once

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "ctl/board/data.h"

namespace keyview::ctl {

struct board_desk {
    board_desk() : news(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    board_desk(const board_desk &) = delete;
    board_desk &operator=(const board_desk &) = delete;
    ~board_desk() { close(news); }

    // Runs a change of the data; the screen is drawn again.
    template <typename work>
    void change(const work &run) {
        {
            std::lock_guard guard(mutex);
            run(&data, std::chrono::steady_clock::now());
        }
        (void)eventfd_write(news, 1);
    }

    std::mutex mutex;
    board_data data;  // guarded by mutex
    std::atomic<bool> ending{false};
    std::atomic<bool> reading{false};  // the registry may be under a lock of the reader
    int news;                          // readable after a change
};

}  // namespace keyview::ctl
