// What a command changes, or would change, in the tree: the same list from a dry run and a real
// one.
#pragma once

#include <string>
#include <vector>

#include "admin/change/plan.h"
#include "ctl/change_source.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/session.h"

namespace keyview::ctl {

// A change of the administration, as a command runs it.
struct change_command {
    std::string what;       // "the document is not applied"
    std::string file = {};  // that it reads: there is the fault if the content is invalid
    // Needs --yes, or the yes of a person at a terminal. Without a terminal, only if records go or
    // change, and more than one.
    bool confirms = false;
    bool compares = false;     // always a dry run; EXIT_NO if anything differs
    std::string url = {};      // of the registry that changes, if it is not the one in force
    std::string missing = {};  // the remedy if a key is missing
};
using change_function = std::function<admin::change_result(const admin::change_options &)>;

// Runs a change and shows what it changed. Before anything is removed, or more than one record is
// replaced, a file is written that undoes it, and the command with which it does.
exit_code carry_out(const tool &shared, const change_command &command, const change_function &run);

// A key whose text an operation of the library replaces; with all_below, every key of the same last
// element below its parent, too.
struct word_change {
    std::string key;
    bool all_below;
    std::string word;
};

// Runs the operation, or only plans it for a dry run, and shows the changes.
exit_code change_words(const session &library, const std::string &what, const word_change &wanted,
                       const std::function<int32_t()> &operation);

// One change: path, before and after; no key is null. revision and since precede them where
// they are shown.
view change_view(const admin::change_row &change);
std::string change_for_people(const admin::change_row &change);

// A line of "watch" for programs.
std::string line_of(const revision_jump &jump);
std::string line_of(uint64_t since, uint64_t revision, const admin::key_change &change);

// The command that makes a key what it is; one that may create the key, too.
std::string set_command(std::string_view path, std::string_view value, bool creates = true);

}  // namespace keyview::ctl
