// See key_place.h.
#include "ctl/key_place.h"

#include "admin/document/meanings.h"
#include "ctl/output.h"
#include "ctl/suggest.h"
#include "model/path.h"

namespace keyview::ctl {

[[noreturn]] static void refuse(const std::string &path, const std::string &why,
                                const std::string &meant) {
    throw tool_error{
        EXIT_USAGE, path + " is not set", "", why,
        "did you mean " + meant + "? --create with --as sets any key as it is written"};
}

static void check_found(const std::string &path) {
    const std::string folded = admin::folded_path(path);
    if (folded != path && !key_exists(path))
        refuse(path, "no reader finds it: the names in a path are in lower case", folded);
}

// A key that the tables do not name may be one that they do, misspelt.
static void check_spelling(const std::string &path) {
    const std::string parent(parent_path(path));
    const std::string meant =
        nearest(std::string(last_element(path)), admin::known_elements(parent));
    if (!meant.empty() && !key_exists(path))
        refuse(path, "no reader looks for it", parent + "." + meant);
}

std::vector<std::string> keys_needed(const std::string &path, bool creates) {
    const admin::key_location place = admin::locate_key(path);
    const std::string parent(parent_path(path)), record = admin::record_of(path);
    check_found(path);
    if (place.pattern.empty()) check_spelling(path);
    bool is_record = !record.empty() && record == path;
    if (!creates) return {is_record || parent.empty() ? path : record.empty() ? parent : record};
    const std::string holder = is_record ? admin::record_of(parent) : record;
    bool is_scope = admin::locate_key(holder).record == nullptr;
    return holder.empty() || is_scope ? std::vector<std::string>{} : std::vector{holder};
}

}  // namespace keyview::ctl
