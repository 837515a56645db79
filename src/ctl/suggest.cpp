// See suggest.h.
#include "ctl/suggest.h"

#include <algorithm>

#include "admin/change/keys.h"
#include "admin/document/meanings.h"
#include "ctl/text.h"
#include "model/folding.h"

namespace keyview::ctl {

static admin::key_map readable(const std::string &path, reach depth) {
    try {
        return admin::read_keys(path, depth).keys;
    } catch (const admin::error &) {
        return {};
    }
}

bool key_exists(const std::string &path) {
    return !readable(path, reach::key_alone).empty();
}

admin::key_map readable_children(const std::string &path) {
    return readable(path, reach::children);
}

std::vector<std::string> registered_names(const std::string &section) {
    std::vector<std::string> names;
    for (const auto &[path, value] : readable_children(section)) {
        if (path == section) continue;
        std::string name(value.empty() ? last_element(path)
                                       : std::string_view(value).substr(0, value.find('\0')));
        if (escaped(name) == name) names.push_back(name);
    }
    return names;
}

// ---- Names in the arguments of a command --------------------------------------------------------

std::vector<std::string> names_for(const std::string &argument, const std::string &first,
                                   const std::string &service) {
    const std::string database = database_key(first);
    if (argument == "DB") return registered_names(DB_ROOT);
    if (argument == "SERVICE" || argument == "--service")
        return registered_names(database + "." + KEY_SERVICE);
    if (argument == "INSTANCE" || argument == "--instance") {
        if (service.empty()) return registered_names(database + "." + KEY_INSTANCE);
        return registered_names(database + "." + KEY_SERVICE + "." + element_of(service, true) +
                                "." + KEY_INSTANCES);
    }
    if (argument == "NODE") return registered_names(NODEAPPS_ROOT);
    if (argument == "SCOPE") return registered_names(STG_ROOT);
    if (argument == "NAME")
        return registered_names(STG_ROOT + std::string(".") + element_of(first));
    return {};
}

std::string key_meant(const std::string &path) {
    std::string out;
    for (std::string_view rest = path; !rest.empty();) {
        const std::string element(first_elements(rest, 1));
        std::vector<std::string> known = admin::known_elements(out);
        if (out.empty()) known = {ROOT};
        for (const auto &[key, value] : readable_children(out))
            if (key != out && escaped(key) == key) known.emplace_back(last_element(key));
        bool present = std::find(known.begin(), known.end(), element) != known.end();
        const std::string meant = present ? element : nearest(element, known);
        if (meant.empty()) return "";
        out += (out.empty() ? "" : ".") + meant;
        rest.remove_prefix(std::min(rest.size(), element.size() + 1));
    }
    return out == path ? "" : out;
}

std::string name_meant(const given_arguments &given) {
    std::string service;
    for (const auto &[argument, name] : given) {
        if (name.empty() || name[0] == '-') continue;
        if (argument == "KEY") return key_meant(name);
        const std::vector<std::string> known = names_for(argument, given.front().second, service);
        if (argument == "SERVICE" || argument == "--service") service = name;
        const std::string element = element_of(name, true);
        auto same = [&](const std::string &one) { return element_of(one, true) == element; };
        if (known.empty() || std::any_of(known.begin(), known.end(), same)) continue;
        return nearest(name, known);
    }
    return "";
}

}  // namespace keyview::ctl
