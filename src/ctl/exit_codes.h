// The exit codes of keyviewctl, the same for every command, and what leads to each of them.
#pragma once

#include <cstdint>
#include <string>

#include "model/records.h"

namespace keyview::ctl {

// exit_codes.cpp has their meanings.
enum exit_code : int {
    EXIT_DONE = 0,
    EXIT_NO = 1,
    EXIT_USAGE = 2,
    EXIT_NOT_FOUND = 3,
    EXIT_REGISTRY = 4,
    EXIT_LOCK = 5,
    EXIT_CHANGED = 6,
    EXIT_DENIED = 7,
    EXIT_CONTENT = 8,
    EXIT_INTERNAL = 9,
    // A signal ends the program as it ends any other; a shell shows 130 for an interrupt, 141 where
    // the reader of the output left, 143 for a termination.
};

constexpr const char *TRY_LIST =
    "\"keyviewctl list\" shows the databases that are there, and \"keyviewctl show\" all of one";

// What a code means. The one table behind the help, "errors" and the manual.
struct exit_row {
    int code;
    const char *word, *meaning, *todo;
};
rows<exit_row> exit_rows();

// A word for programs, such as "not_found".
const char *exit_word(exit_code code);

// The codes and their meanings, a line each, for the help.
std::string exit_code_help();

// For a question that is answered by yes or no.
inline exit_code exit_of_answer(int32_t yes) {
    return yes != 0 ? EXIT_DONE : EXIT_NO;
}

// What a PRSR_* code means: for the exit, and in words where the host kit has none.
struct library_failure {
    const char *why;
    const char *todo;
    exit_code code;
    bool host_knows;  // the host kit's latest failure is the cause
};
const library_failure &library_failure_of(int32_t rc);

// What a KEYVIEW_FAILURE_* means for the exit; the failure itself has the words.
struct host_failure {
    exit_code code;
    const char *todo;
};
const host_failure &host_failure_of(int32_t kind);

// For the host kit's latest failure where the library has one code for all of them.
exit_code exit_of_host_failure(int32_t kind, exit_code otherwise);

// For a failed system call on a file that was named on the command line.
exit_code exit_of_errno(int error);

}  // namespace keyview::ctl
