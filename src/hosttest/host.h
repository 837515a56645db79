// The host under test and the library over it, both loaded at run time: the program itself defines no
// outside operation, so the library finds those of the host.
#pragma once

#include <string>

#include "keyview/if/prsr.h"
#include "platform/kvtc.h"
#include "platform/lksv.h"
#include "platform/tmem.h"
#include "platform/trcd.h"
#include "platform/txt.h"

#define KEYVIEW_OUTSIDE_OPERATIONS(use)                                                          \
    use(kvtc_init_ext) use(kvtc_terminate) use(kvtc_open_key) use(kvtc_close_key)                \
        use(kvtc_get_value) use(kvtc_set_value) use(kvtc_enum_subkey) use(kvtc_get_last_error)   \
            use(pgcinit) use(tmem_allocm) use(tmem_freem) use(tmem_fill_tag) use(tmem_check_tag) \
                use(trcdcompreg) use(trcdprintf) use(trcdprintft) use(thrsini) use(lksvsinit)    \
                    use(lksvsterm) use(lksvlsshrlock) use(lksvlsmutexlock) use(lksvlsunlock)     \
                        use(txtmlo) use(txtmup) use(txtlo) use(txtclo) use(txtrep)

#define KEYVIEW_USED_OPERATIONS(use)                                                   \
    use(prsr_init) use(prsr_terminate) use(prsr_list_db) use(prsr_release_db_list)     \
        use(prsr_fetch_db_config) use(prsr_release_db_config) use(prsr_set_db_enabled) \
            use(prsr_get_db_enabled)

namespace keyview::hosttest {

#define KEYVIEW_MEMBER(name) decltype(&::name) name;  // NOLINT(bugprone-macro-parentheses)
struct host_calls {
    KEYVIEW_OUTSIDE_OPERATIONS(KEYVIEW_MEMBER)
};
struct library_calls {
    KEYVIEW_USED_OPERATIONS(KEYVIEW_MEMBER)
};
#undef KEYVIEW_MEMBER

extern host_calls host;        // after load_host
extern library_calls library;  // after load_library

// Loads the host, whose names are then found by the library. Ends the process if it cannot be loaded
// or lacks an operation.
void load_host(const char *file);
void load_library();

// ---- The steps that rules share -----------------------------------------------------------------

// Ends the process: the rule is broken, for this reason.
[[noreturn]] void broken(const std::string &why);
// The same unless what the rule requires holds.
void require(bool holds, const std::string &why);
// Ends the process: the host's registry has nothing to check the rule with.
[[noreturn]] void untestable(const std::string &why);

void *new_registry();
void *opened(void *reg, const std::string &path);  // a key that must open
std::string first_database(void *reg);             // its path

}  // namespace keyview::hosttest
