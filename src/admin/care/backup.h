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
    uint64_t revision = 0;
};

// Saves the registry in force.
backup backup_registry();

bool is_backup(std::string_view content);

// Makes the tree what a backup holds, in one transaction, once all of the backup is verified. A
// registry that does not exist yet is created; one that holds keys is KEYVIEW_FAILURE_USAGE without
// force. copy_registry does the same from the registry in force to the one of a URL.
change_result restore_registry(std::string_view content, bool force, const change_options &options);
change_result copy_registry(const std::string &to_url, bool force, const change_options &options);

}  // namespace keyview::admin
