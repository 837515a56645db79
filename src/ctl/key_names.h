// From names as people write them to keys.
#ifndef KEYVIEW_CTL_KEY_NAMES_H
#define KEYVIEW_CTL_KEY_NAMES_H

#include <string>

namespace keyview::ctl {

// The key that all others are below.
constexpr const char *WHOLE_TREE = "DATABASE";

// Only letters of ASCII have a case.
inline std::string folded(std::string name) {
    for (char &byte : name)
        if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
    return name;
}

inline std::string service_element(const std::string &name) {
    std::string element = folded(name);
    for (char &byte : element)
        if (byte == '.') byte = '*';
    return element;
}

inline std::string database_key(const std::string &dbname) {
    return "DATABASE.DATABASES." + folded(dbname);
}

}  // namespace keyview::ctl

#endif
