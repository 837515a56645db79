// See keys.h.
#include "admin/change/keys.h"

#include <utility>

namespace keyview::admin {

read_keys_result read_keys(const std::string &path, reach depth) {
    read_keys_result out;
    out.revision = registry::open().read({{path, depth}}, &out.keys);
    if (out.keys.empty()) throw error(KEYVIEW_FAILURE_NOT_FOUND, "there is no key " + path);
    return out;
}

change_result set_key(const std::string &path, const std::string &value,
                      const change_options &options) {
    const char *fault = path_fault(path);
    if (fault != nullptr)
        throw error(KEYVIEW_FAILURE_USAGE, "no key can be '" + path + "': " + fault);
    change_request request;
    request.locks = further_locks::of_all;
    request.changes.add(path, value);
    return change_registry("", ready(std::move(request)), options);
}

change_result remove_keys(const std::vector<std::string> &paths, change_options options) {
    change_request removal;
    removal.locks = further_locks::of_all;
    for (const std::string &path : paths) {
        removal.changes.add(path, std::nullopt);
        options.present.push_back(path);
    }
    return change_registry("", ready(std::move(removal)), options);
}

}  // namespace keyview::admin
