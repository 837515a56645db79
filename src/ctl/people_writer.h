// A view as people read it: a tree of labelled lines, or a table that fits the terminal. No byte of
// a name or value reaches the result unescaped.
#pragma once

#include <string>

#include "ctl/view.h"

namespace keyview::ctl {

// A record as a tree, a list of records as a table, a list of texts a line each. All records of a
// table have the fields of the first one.
std::string text_for_people(const view &shown);

}  // namespace keyview::ctl
