/* keyview_host.h stands alone as C99. */
#include "host/if/keyview_host.h"

int32_t (*const keyview_host_setter)(const char *) = keyview_host_set_registry;
