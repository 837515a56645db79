// How a name becomes the element of a path.
#pragma once

#include <string>
#include <string_view>

#include "model/roots.h"

namespace model {

// A name in lower case. Only ASCII letters have a case; of a service, whose name may be dotted, a "."
// becomes "*".
inline std::string element_of(std::string_view name, bool dotted = false) {
    std::string element(name);
    for (char &byte : element) {
        if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
        if (byte == '.' && dotted) byte = '*';
    }
    return element;
}

// The key of a database.
inline std::string database_key(std::string_view name) {
    return DB_ROOT + std::string(".") + element_of(name);
}

}  // namespace model
