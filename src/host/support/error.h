// The one exception of the host kit: a kind of failure, and a text for users. It never leaves
// the kit through a C operation; those turn it into a code and keep the text for last_error.
#ifndef KEYVIEW_HOST_SUPPORT_ERROR_H
#define KEYVIEW_HOST_SUPPORT_ERROR_H

#include <stdexcept>
#include <string>

namespace keyview::host {

enum class failure {
    usage,      // a registry URL, a setting or an argument cannot be used
    not_found,  // the registry, or a named part of it, does not exist
    registry,   // the registry cannot be reached or failed
    lock,       // a lock was refused, lost or not granted in time
    changed,    // the tree changed meanwhile
    denied,     // not permitted
    content,    // the registry's content, or a document, is invalid
    internal,   // no memory, or a defect of the kit
};

class host_error : public std::runtime_error {
  public:
    host_error(failure what_kind, const std::string &text)
        : std::runtime_error(text), kind(what_kind) {}

    failure kind;
};

}  // namespace keyview::host

#endif
