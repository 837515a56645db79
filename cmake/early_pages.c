/* For programs with AddressSanitizer. Its tables lie in the zeroed data of the program, 10 MB, and even a
 * short run uses a bit of most of their pages: half of all faults of pages in a run of the tool. Huge pages,
 * where the system has them, are faulted in at once, but only where no page was touched before. So they are
 * requested when the program is linked at its start, by a resolver, before the sanitizer begins. */
#define _DEFAULT_SOURCE
#include <stdint.h>
#include <sys/mman.h>

#define HUGE_PAGE ((uintptr_t)2 << 20)

extern char __bss_start[], _end[];

static void do_nothing(void) {}

__attribute__((used)) static void (*resolve(void))(void) {
    const uintptr_t from = ((uintptr_t)__bss_start + HUGE_PAGE - 1) / HUGE_PAGE * HUGE_PAGE;
    const uintptr_t to = (uintptr_t)_end / HUGE_PAGE * HUGE_PAGE;
    if (from < to) (void)madvise((void *)from, to - from, MADV_HUGEPAGE);
    return do_nothing;
}

static void request_huge_pages(void) __attribute__((ifunc("resolve")));

__attribute__((constructor)) static void need_resolver(void) {
    request_huge_pages();
}
