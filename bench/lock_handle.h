// The lock service as the library uses it: for what no public operation does, such as to hold a
// lock for a while.
#pragma once

#include <string>

#include "bench/failure.h"
#include "host/if/keyview_host.h"
#include "platform/lksv.h"
#include "platform/tmem.h"

namespace keyview::bench {

struct lock_handle {
    explicit lock_handle(const std::string &url) {
        const uint16_t version[2] = {2, 1};
        const uint64_t block[8] = {reinterpret_cast<uintptr_t>(pgcinit(0)),
                                   reinterpret_cast<uintptr_t>(&tmem_allocm),
                                   reinterpret_cast<uintptr_t>(&tmem_freem),
                                   reinterpret_cast<uintptr_t>(thrsini()),
                                   0,
                                   208,
                                   0,
                                   0};
        require(keyview_host_set_registry(url.c_str()) == 0, keyview_host_last_error());
        require(lksvsinit(status, &lk, version, block, 272) == 0, keyview_host_last_error());
    }
    lock_handle(const lock_handle &) = delete;
    lock_handle &operator=(const lock_handle &) = delete;
    ~lock_handle() { (void)lksvsterm(status, lk); }

    void take_shared() { require(lksvlsshrlock(status, lk, NAME) == 0, keyview_host_last_error()); }
    void take_exclusive() {
        require(lksvlsmutexlock(status, lk, NAME) == 0, keyview_host_last_error());
    }
    void give_back() { require(lksvlsunlock(status, lk, NAME) == 0, keyview_host_last_error()); }

    static constexpr char NAME[] = "LKRT.DATABASE.DATABASES.typical";

    char status[256] = {};
    void *lk = nullptr;
};

}  // namespace keyview::bench
