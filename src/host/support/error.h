// The one exception of the host kit: a kind of failure, and a text for users. It never leaves
// the kit through a C operation; those turn it into a code and keep the text for last_error.
#pragma once

#include <stdexcept>
#include <string>

#include "host/if/keyview_host.h"

namespace keyview::host {

// The kinds of keyview_host.h.
enum class failure : int32_t {
    usage = KEYVIEW_FAILURE_USAGE,
    not_found = KEYVIEW_FAILURE_NOT_FOUND,
    registry = KEYVIEW_FAILURE_REGISTRY,
    lock = KEYVIEW_FAILURE_LOCK,
    changed = KEYVIEW_FAILURE_CHANGED,
    denied = KEYVIEW_FAILURE_DENIED,
    content = KEYVIEW_FAILURE_CONTENT,
    internal = KEYVIEW_FAILURE_INTERNAL,
};

class host_error : public std::runtime_error {
  public:
    host_error(failure what_kind, const std::string &text)
        : std::runtime_error(text), kind(what_kind) {}

    failure kind;
};

}  // namespace keyview::host
