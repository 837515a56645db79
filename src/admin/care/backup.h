// Saved trees: the whole tree as of one moment, byte for byte, as a text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "admin/change/plan.h"

namespace keyview::admin {

struct backup {
    std::string content;
    uint64_t keys = 0;
    uint64_t revision = 0;  // 0 if damage was left out
    problem_list left_out{problem_list::NO_LIMIT};
};

// Saves the registry in force. Damage is KEYVIEW_FAILURE_CONTENT; with salvage it is left out.
backup backup_registry(bool salvage);

bool is_backup(std::string_view content);

// How many keys a sound backup has.
uint64_t keys_in(std::string_view content);

// Makes the tree what a backup holds, in one transaction, once all of the backup is verified. A
// registry that does not exist yet is created; one that holds keys is KEYVIEW_FAILURE_USAGE without
// force.
change_result restore_registry(std::string_view content, bool force, const change_options &options);

// Does the same from the registry in force to the one of a URL. Damage is KEYVIEW_FAILURE_CONTENT;
// where left_out is given, it is left out and listed there.
change_result copy_registry(const std::string &to_url, bool force, const change_options &options,
                            problem_list *left_out);

}  // namespace keyview::admin
