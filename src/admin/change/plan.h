// From a wish to what happens in the registry: which keys change and how, under which locks. The
// same plan is told by a dry run and carried out by a real one.
#ifndef KEYVIEW_ADMIN_CHANGE_PLAN_H
#define KEYVIEW_ADMIN_CHANGE_PLAN_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "admin/admin.h"
#include "admin/problems.h"
#include "host/registry/backend.h"

namespace keyview::admin {

struct wish {
    std::vector<host::change> changes;
    std::set<std::string> locks = {};  // at least these
    // Where the rest goes if it is to be pruned.
    enum class scope { sections, all } within = scope::sections;
    // Throws, or adds problems, if the wish does not fit the tree; keys may be null for a registry
    // that does not exist.
    std::function<void(host::moment *keys, problem_list *problems)> check = {};
    const char *refusal = "";  // the text of a refusal with problems
};

// Carries a wish out in the registry of a URL, or tells what that would do. Throws host_error.
void change_registry(const std::string &url, const wish &wanted, const change_options &options,
                     change_result *out);

}  // namespace keyview::admin

#endif
