// From a request to what happens in the registry: which keys change and how, under which locks. A
// dry run reports the same plan that a real run carries out.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "admin/change/changes.h"
#include "admin/registry.h"

namespace keyview::admin {

// What a plan shows as the value of a key whose stored bytes are damaged. It has no zero byte, so no
// text is like it; a change replaces or removes the key.
constexpr const char *DAMAGED_VALUE = "(damaged)";

struct change_result {
    key_changes changes;    // in the order of the paths, parents before their children
    lock_list locks;        // exclusive ones, taken for it
    uint64_t revision = 0;  // the tree's, before the change
};

struct change_options {
    bool dry_run = false;                 // report what would change, write nothing, take no lock
    bool prune = false;                   // remove what is not requested
    std::optional<uint64_t> if_revision;  // the tree's, else KEYVIEW_FAILURE_CHANGED
    // Keys that must be there (else KEYVIEW_FAILURE_NOT_FOUND), and that must not be (else
    // KEYVIEW_FAILURE_USAGE).
    std::vector<std::string> present = {}, absent = {};
    // Pruning removes nothing outside this key; "" is the whole tree.
    std::string prune_within = {};
    // Receives the plan under its locks, just before it is written; what it throws keeps the tree as
    // it was. Called again if the plan is made anew.
    std::function<void(const change_result &)> before_write = {};
    // Receives, on the calling thread, each step, such as "writes 17 changes".
    std::function<void(const std::string &)> step = {};
};

// The locks of keys in the sections that change are always taken. Of the requested keys also those of
// records, changed or not, or of all, wherever they are.
enum class further_locks { none, of_records, of_all };

struct change_request {
    key_list changes;  // carried out in the order of their paths
    further_locks locks = further_locks::none;
    std::vector<std::string> examines = {};  // keys that check reads
    bool prunes_all = false;                 // pruning covers keys outside the sections, too
    // Throws if the request does not fit the tree. present holds at least the keys that change or
    // are examined; it is empty for a registry that does not exist. prunes is that of the options.
    std::function<void(const key_list &present, bool prunes)> check = {};
};

// A request that can be carried out, or planned, several times.
using ready_request = std::shared_ptr<const change_request>;
ready_request ready(change_request wanted);

// Carries a request out in the registry of a URL ("": the one in force), or reports what that would
// do. A registry that does not exist is created. All of it happens or nothing does.
change_result change_registry(const std::string &url, const ready_request &request,
                              const change_options &options);

}  // namespace keyview::admin
