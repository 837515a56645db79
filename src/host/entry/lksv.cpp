// The lock operations over the lock service of a registry. A lock belongs to the thread that took
// it.
#include "platform/lksv.h"
#include "host/entry/backends.h"
#include "host/registry/lock_wait.h"

#include <cstring>

#include "host/registry/backend.h"
#include "host/registry/handles.h"
#include "host/registry/held_locks.h"
#include "host/support/last_error.h"
#include "model/path.h"

using namespace keyview;
using namespace keyview::host;

static constexpr uint16_t LKSV_VERSION[] = {2, 1};
static constexpr uint64_t SIZE = 272;
static constexpr size_t MAX_NAME_LENGTH = MAX_PATH_LENGTH + 16;

namespace {

struct lock_client {
    backend registry;
    uint64_t token = 0;
};

}  // namespace

static handle_table<lock_client, 2> lock_clients;

static int32_t make_client(void **lk, const uint16_t *version, uint64_t size) {
    if (lk == nullptr || version == nullptr) {
        return fail(BAD_ARGUMENT, {"a pointer of the call is null"});
    }
    if (version[0] != LKSV_VERSION[0] || version[1] != LKSV_VERSION[1] || size != SIZE) {
        return fail(BAD_ARGUMENT, {"the lock service is version 2.1 with size 272"});
    }
    (void)lock_wait_ms();  // a setting that cannot be used is told now
    auto client = std::make_unique<lock_client>();
    client->registry = open_backend(registry_url(), open_mode::existing);
    void *made = lock_clients.add(std::move(client));
    if (made == nullptr) return fail(FAILED, {"the process has too many lock service handles"});
    *lk = made;
    return 0;
}

static int32_t take_lock(void *lk, const char *name, lock_mode mode) {
    return at_border([&]() -> int32_t {
        lock_client *client = lock_clients.find(lk);
        if (client == nullptr) return fail(BAD_ARGUMENT, {"this is no live lock service handle"});
        size_t length = name == nullptr ? 0 : strnlen(name, MAX_NAME_LENGTH + 1);
        if (length == 0 || length > MAX_NAME_LENGTH) {
            return fail(BAD_ARGUMENT, {"the name of a lock is missing or too long"});
        }
        held_locks::of_thread().take(lk, client->registry, name, mode);
        return 0;
    });
}

extern "C" {

// The threads of the process need no context of their own, so there is one for all.
void *thrsini(void) {
    static char thread_support;
    return &thread_support;
}

// The kit has its own memory and threads.
int32_t lksvsinit(void * /*status*/, void **lk, const uint16_t *version, const uint64_t * /*block*/,
                  uint64_t size) {
    return at_border([&] { return make_client(lk, version, size); });
}

// Locks that other threads took through the handle stay with them.
int32_t lksvsterm(void * /*status*/, void *lk) {
    return at_border([&]() -> int32_t {
        if (lock_clients.remove(lk) == nullptr) {
            return fail(BAD_ARGUMENT, {"this is no live lock service handle"});
        }
        held_locks::of_thread().release_all(lk);
        return 0;
    });
}

int32_t lksvlsshrlock(void * /*status*/, void *lk, const char *name) {
    return take_lock(lk, name, lock_mode::shared);
}

int32_t lksvlsmutexlock(void * /*status*/, void *lk, const char *name) {
    return take_lock(lk, name, lock_mode::exclusive);
}

int32_t lksvlsunlock(void * /*status*/, void *lk, const char *name) {
    return at_border([&]() -> int32_t {
        if (name != nullptr && held_locks::of_thread().release(lk, name)) return 0;
        return fail(LOCK_FAILED,
                    {"this thread does not hold the lock ", name == nullptr ? "" : name});
    });
}

}  // extern "C"
