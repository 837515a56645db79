// This program's clock functions take the place of those of libc, for all libraries in the process, and so
// does the call by which gRPC waits until a time of the day: the kernel's clock is not stepped.
#include "clock_steps.h"

#include <dlfcn.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>

static std::atomic<int64_t> ahead_s{0};

using system_call = long (*)(long, long, long, long, const timespec *, long, long);

static system_call real_syscall() {
    static const auto real = reinterpret_cast<system_call>(dlsym(RTLD_NEXT, "syscall"));
    return real;
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): those of libc are reserved

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec *out) noexcept {
    long rc =
        real_syscall()(SYS_clock_gettime, clock, reinterpret_cast<long>(out), 0, nullptr, 0, 0);
    if (rc == 0 && clock == CLOCK_REALTIME) out->tv_sec += ahead_s;
    return static_cast<int>(rc);
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval *__restrict out,
                                                                   void *__restrict) noexcept {
    timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    *out = {now.tv_sec, now.tv_nsec / 1000};
    return 0;
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t *out) noexcept {
    timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

extern "C" __attribute__((visibility("default"))) long syscall(long number, ...) noexcept {
    va_list words;
    va_start(words, number);
    const long first = va_arg(words, long), operation = va_arg(words, long);
    const long third = va_arg(words, long);
    const auto *until = va_arg(words, const timespec *);
    const long fifth = va_arg(words, long), last = va_arg(words, long);
    va_end(words);
    timespec moved;
    if (number == SYS_futex && (operation & FUTEX_CLOCK_REALTIME) != 0 && until != nullptr) {
        moved = *until;
        moved.tv_sec -= ahead_s;
        until = &moved;
    }
    return real_syscall()(number, first, operation, third, until, fifth, last);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace keyview::test {

static void step(int signal_number) {
    ahead_s += signal_number == SIGUSR1 ? 3600 : -3600;
}

void take_clock_steps() {
    struct sigaction how = {};
    how.sa_handler = step;
    how.sa_flags = SA_RESTART;
    (void)sigaction(SIGUSR1, &how, nullptr);
    (void)sigaction(SIGUSR2, &how, nullptr);
}

int64_t monotonic_ns() {
    timespec now;
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000000} + now.tv_nsec;
}

}  // namespace keyview::test
