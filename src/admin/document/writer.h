// From the tree to a cluster document.
#pragma once

#include <string>

#include "admin/document/key_tree.h"
#include "admin/error.h"

namespace keyview::admin {

// The document of a tree whose node stands above the roots; of no use if there are problems. Marks
// the nodes that it has told. Keys outside the three roots belong to others and are left alone.
std::string write_document(key_node *tree, problem_list *problems);

}  // namespace keyview::admin
