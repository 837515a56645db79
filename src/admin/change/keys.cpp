// See keys.h.
#include "admin/change/keys.h"

#include "model/locks.h"

namespace keyview::admin {

[[noreturn]] static void no_such_key(const std::string &path) {
    throw error(KEYVIEW_FAILURE_NOT_FOUND, "there is no key " + path);
}

read_keys_result read_keys(const std::string &path, reach depth) {
    read_keys_result out;
    out.revision = registry::open().read({{path, depth}}, &out.keys);
    if (out.keys.empty()) no_such_key(path);
    return out;
}

change_result set_key(const std::string &path, const std::string &value,
                      const change_options &options) {
    const char *fault = path_fault(path);
    if (fault != nullptr)
        throw error(KEYVIEW_FAILURE_USAGE, "no key can be '" + path + "': " + fault);
    return change_registry("", {{{path, value}}, {lock_of(path)}}, options);
}

change_result remove_key(const std::string &path, const change_options &options) {
    change_request removal = {{{path, std::nullopt}}, {lock_of(path)}};
    removal.check = [&](const key_map &present) {
        if (present.count(path) == 0) no_such_key(path);
    };
    (void)registry::open();  // one that does not exist is not created
    return change_registry("", removal, options);
}

}  // namespace keyview::admin
