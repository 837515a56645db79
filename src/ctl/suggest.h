// "Did you mean": what a mistyped word may have been.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "admin/key_map.h"
#include "admin/nearest.h"

namespace keyview::ctl {

using admin::nearest;

bool key_exists(const std::string &path);

// A key with its children; nothing if it cannot be read.
admin::key_map readable_children(const std::string &path);

// The registered names of a section, such as "DATABASE.DATABASES"; none if it cannot be read. Names
// that a terminal must not see are left out.
std::vector<std::string> registered_names(const std::string &section);

// The names that an argument or option of a command may have, such as "INSTANCE": first is the first
// argument's value, service that of the service, if there is one.
std::vector<std::string> names_for(const std::string &argument, const std::string &first,
                                   const std::string &service = "");

// The path of a key, with the near ones for the elements that the tree and its tables do not know; ""
// if there is none.
std::string key_meant(const std::string &path);

// What the arguments of a command are called, each with its value.
using given_arguments = std::vector<std::pair<std::string, std::string>>;

// The name that the first unknown one in a command's arguments may have been, or the path; "" if all
// are known or none is near.
std::string name_meant(const given_arguments &given);

}  // namespace keyview::ctl
