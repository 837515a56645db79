// Maps failures to exit codes and remedies.
#include "ctl/exit_codes.h"

#include <cerrno>
#include <iterator>

#include "host/if/keyview_host.h"
#include "keyview/if/prsr.h"

namespace keyview::ctl {

static constexpr const char *TRY_REGISTRY =
    "check that the registry exists, runs and may be used by this user";
static constexpr const char *TRY_LATER = "try again when its holder is done";
static constexpr const char *TRY_MEMORY = "try again with more memory";
static constexpr const char *TRY_LINT =
    "correct each fault listed; \"keyviewctl lint\" lists those of the registry with their remedies";
static constexpr const char *REPORT_BUG = "report this: it is a mistake in keyview";

// The first ones by code, from EXIT_DONE on.
static constexpr exit_row EXITS[] = {
    {EXIT_DONE, "done", "done, or the answer is yes", "nothing"},
    {EXIT_NO, "no", "the answer is no: it differs, is disabled or not supported", "nothing"},
    {EXIT_USAGE, "usage", "the command line or a settings file cannot be used",
     "see the command's --help"},
    {EXIT_NOT_FOUND, "not_found", "what was named does not exist", "check the name"},
    {EXIT_REGISTRY, "registry", "the registry cannot be reached or failed", TRY_REGISTRY},
    {EXIT_LOCK, "lock", "a lock was refused, lost or not granted in time", TRY_LATER},
    {EXIT_CHANGED, "changed", "the tree changed meanwhile",
     "read the tree again and repeat the command"},
    {EXIT_DENIED, "denied", "not permitted", "run it as a user who may use the registry"},
    {EXIT_CONTENT, "content", "the content of the registry, or a document, is invalid", TRY_LINT},
    {EXIT_INTERNAL, "internal", "no memory, the output failed, or a mistake in keyview",
     "make room for the output, or report it"},
    {130, "interrupted", "in a shell: ended by an interrupt", "nothing"},
    {141, "reader_left", "in a shell: the reader of the output left before its end", "nothing"},
    {143, "terminated", "in a shell: ended by a termination", "nothing"},
};

rows<exit_row> exit_rows() {
    return EXITS;
}

const char *exit_word(exit_code code) {
    return EXITS[code].word;
}

std::string exit_code_help() {
    std::string out = "Exit codes:\n";
    for (const exit_row &row : EXITS) {
        std::string code = std::to_string(row.code);
        out += "  " + code + std::string(5 - code.size(), ' ') + row.meaning + "\n";
    }
    return out;
}

// By code, from PRSR_SUCCESS on.
static constexpr library_failure LIBRARY_FAILURES[] = {
    {"", "", EXIT_DONE, false},
    {"a name is too long", "use the name as it is registered", EXIT_USAGE, false},
    {"out of memory", TRY_MEMORY, EXIT_INTERNAL, false},
    {"the registry failed", TRY_REGISTRY, EXIT_REGISTRY, true},
    {"the library refused its own context", REPORT_BUG, EXIT_INTERNAL, false},
    {"the lock was not granted", TRY_LATER, EXIT_LOCK, true},
    {"there is no thread support", REPORT_BUG, EXIT_INTERNAL, true},
    {"it is not registered", TRY_LIST, EXIT_NOT_FOUND, false},
    {"there is no such storage manager entry", "check its scope and name", EXIT_NOT_FOUND, false},
    {"the stored word is no role", "set the role again", EXIT_CONTENT, false},
    {"the node has no entry", "check the name of the node", EXIT_NOT_FOUND, false},
};
static_assert(std::size(LIBRARY_FAILURES) == PRSR_ERR_NO_NODEAPPS + 1, "a row for each code");

static constexpr library_failure UNKNOWN_CODE = {"an unknown code", REPORT_BUG, EXIT_INTERNAL,
                                                 false};

const library_failure &library_failure_of(int32_t rc) {
    if (rc < 0 || rc > PRSR_ERR_NO_NODEAPPS) return UNKNOWN_CODE;
    return LIBRARY_FAILURES[rc];
}

// By KEYVIEW_FAILURE_*; the first row is for a success.
static constexpr host_failure HOST_FAILURES[] = {
    {EXIT_DONE, ""},
    {EXIT_USAGE,
     "see the command's --help; --registry or KEYVIEW_REGISTRY chooses a registry, such as "
     "lmdb:/var/lib/keyview"},
    {EXIT_NOT_FOUND, "check the name"},
    {EXIT_REGISTRY, TRY_REGISTRY},
    {EXIT_LOCK, TRY_LATER},
    {EXIT_CHANGED, "read the tree again and repeat the command"},
    {EXIT_DENIED, "run it as a user who may change the registry"},
    {EXIT_CONTENT, TRY_LINT},
    {EXIT_INTERNAL, TRY_MEMORY},
};

static_assert(std::size(HOST_FAILURES) == KEYVIEW_FAILURE_INTERNAL + 1, "a row for each kind");

const host_failure &host_failure_of(int32_t kind) {
    return HOST_FAILURES[kind];
}

exit_code exit_of_host_failure(int32_t kind, exit_code otherwise) {
    bool is_more_precise =
        kind != 0 && kind != KEYVIEW_FAILURE_NOT_FOUND && kind != KEYVIEW_FAILURE_INTERNAL;
    return is_more_precise ? host_failure_of(kind).code : otherwise;
}

exit_code exit_of_errno(int error) {
    if (error == ENOENT || error == ENOTDIR) return EXIT_NOT_FOUND;
    if (error == EACCES || error == EPERM || error == EROFS) return EXIT_DENIED;
    if (error == EISDIR || error == EEXIST || error == ENAMETOOLONG || error == ELOOP)
        return EXIT_USAGE;
    return EXIT_INTERNAL;
}

}  // namespace keyview::ctl
