// What a command changes, or would change, in the tree: the same list from a dry run and a real
// one.
#ifndef KEYVIEW_CTL_CHANGE_VIEW_H
#define KEYVIEW_CTL_CHANGE_VIEW_H

#include <string>
#include <vector>

#include "admin/change/plan.h"
#include "ctl/command.h"
#include "ctl/file_io.h"
#include "ctl/output.h"
#include "ctl/session.h"

namespace keyview::ctl {

// What the command line asks of a change.
admin::change_options options_of(const tool &shared, bool dry_run);

// Runs a change that reads a file. A failure is located in the file if its content is at fault, else
// in the registry.
template <typename work>
admin::change_result attempt_with_file(const tool &shared, const std::string &what,
                                       const std::string &file, work &&run) {
    try {
        return run();
    } catch (const admin::error &failed) {
        fail(failed, what,
             failed.kind == KEYVIEW_FAILURE_CONTENT ? file_label(file) : shared.registry);
    }
}

exit_code show_changes(const tool &shared, const admin::change_result &changed);

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

// One change: path, before and after; no key is null. revision and since stand before them where
// they are told.
view change_view(const admin::key_change &change);
std::string change_for_people(const admin::key_change &change);

// The command that makes a key what it is.
std::string set_command(const std::string &path, const std::string &value);

// Asks a person who sits at a terminal on both ends; throws if the answer is no. changed is what
// will happen.
void confirm(const tool &shared, const std::function<admin::change_result()> &dry_run);

}  // namespace keyview::ctl

#endif
