// The latest failure of each thread.
#include "host/support/last_error.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/kvtc.h"

namespace keyview::host {

last_failure &thread_failure() noexcept {
    static thread_local last_failure latest;
    return latest;
}

static thread_local struct {
    keyview_failure_callback callback;
    void *arg;
} damage_observer;

void observe_damage(keyview_failure_callback callback, void *arg) noexcept {
    damage_observer = {callback, arg};
}

static failure kind_of(int32_t code) {
    if (code == BAD_ARGUMENT || code == NAME_TOO_LONG) return failure::usage;
    if (code == LOCK_FAILED) return failure::lock;
    if (code == KVTC_ERR_MORE_DATA)
        return failure::content;  // a value is longer than its readers take
    return code == NO_MEMORY ? failure::internal : failure::registry;
}

int32_t fail(int32_t code, std::initializer_list<std::string_view> pieces) noexcept {
    last_failure &latest = thread_failure();
    latest.code = code;
    latest.kind = kind_of(code);
    size_t used = 0;
    for (std::string_view piece : pieces) {
        size_t taken = std::min(piece.size(), sizeof(latest.text) - 1 - used);
        memcpy(latest.text + used, piece.data(), taken);
        used += taken;
    }
    latest.text[used] = '\0';
    return code;
}

static int32_t code_of(failure kind) {
    if (kind == failure::usage) return BAD_ARGUMENT;
    return kind == failure::lock ? LOCK_FAILED : FAILED;
}

int32_t fail(const std::exception &error) noexcept {
    if (dynamic_cast<const std::bad_alloc *>(&error) != nullptr) {
        return fail(NO_MEMORY, {"out of memory"});
    }
    const auto *known = dynamic_cast<const host_error *>(&error);
    if (known == nullptr) return fail(FAILED, {error.what()});
    int32_t code = fail(code_of(known->kind), {error.what()});
    thread_failure().kind = known->kind;
    if (known->kind == failure::content && damage_observer.callback != nullptr)
        damage_observer.callback(damage_observer.arg,
                                 {thread_failure().text, strlen(thread_failure().text)});
    return code;
}

}  // namespace keyview::host
