// "Did you mean": what a mistyped word may have been.
#pragma once

#include <string>
#include <vector>

#include "admin/key_map.h"

namespace keyview::ctl {

// The candidate that is least far from a word, whatever the case; "" if none is near.
std::string nearest(const std::string &word, const std::vector<std::string> &candidates);

bool key_exists(const std::string &path);

// A key with its children; nothing if it cannot be read.
admin::key_map readable_children(const std::string &path);

// The registered names of a section, such as "DATABASE.DATABASES"; none if it cannot be read. Names
// that a terminal must not see are left out.
std::vector<std::string> registered_names(const std::string &section);

// "did you mean Sales?", if one of the words is near the name of a database; else "".
std::string database_meant(const std::vector<std::string> &words);

}  // namespace keyview::ctl
