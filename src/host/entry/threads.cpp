// Thread support for the lock service: the threads of the process need no context of their own, so
// there is one for all.
#include "platform/lksv.h"

extern "C" void *thrsini(void) {
    static char thread_support;
    return &thread_support;
}
