// The calls of libmicrohttpd, which is loaded when the server starts: no other command pays for it.
#pragma once

#include <microhttpd.h>

namespace keyview::ctl {

#define KEYVIEW_HTTP_CALLS(call)                                                      \
    call(start_daemon) call(stop_daemon) call(quiesce_daemon) call(get_daemon_info)   \
        call(get_connection_info) call(lookup_connection_value) call(queue_response)  \
            call(add_response_header) call(destroy_response) call(suspend_connection) \
                call(resume_connection) call(create_response_from_callback)           \
                    call(create_response_from_buffer_with_free_callback_cls)

struct http_library {
#define KEYVIEW_HTTP_CALL(name) decltype(&::MHD_##name) name;  // NOLINT(bugprone-macro-parentheses)
    KEYVIEW_HTTP_CALLS(KEYVIEW_HTTP_CALL)
#undef KEYVIEW_HTTP_CALL
};

// Loads the library once; throws a tool_error if it is not installed.
const http_library &http();

}  // namespace keyview::ctl
